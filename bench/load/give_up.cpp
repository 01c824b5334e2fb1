#include "bench/load/give_up.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

namespace Load {

void giveUp(const char* sFormat, ...) {
    std::va_list arguments;
    va_start(arguments, sFormat);
    std::fputs("relay_load: ", stderr);
    std::vfprintf(stderr, sFormat, arguments);
    std::fputs("\n", stderr);
    va_end(arguments);
    std::exit(EXIT_FAILURE);
}

}  // namespace Load
