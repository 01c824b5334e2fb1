#include "bench/instructions/give_up.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

void giveUp(const char* sReason) {
    std::fprintf(stderr, "relay_instructions: %s\n", sReason);
    std::exit(EXIT_FAILURE);
}

void require(bool bSucceeded, const char* sWhat) {
    if (!bSucceeded) {
        std::fprintf(stderr, "%s: %s\n", sWhat, std::strerror(errno));
        giveUp("a system call failed");
    }
}
