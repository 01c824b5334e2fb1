#include "base/string_format.h"

#include <cstdio>

std::string vstring_format(const char* fmt, va_list args) {
    char achBuffer[1024];
    va_list again;
    va_copy(again, args);
    std::string sText;
    const int nLength = std::vsnprintf(achBuffer, sizeof achBuffer, fmt, args);
    if (nLength >= 0) {
        const auto nChars = static_cast<std::size_t>(nLength);
        if (nChars < sizeof achBuffer) {
            sText.assign(achBuffer, nChars);
        } else {
            // One more character for the terminator, which vsnprintf insists on writing.
            sText.resize(nChars + 1);
            std::vsnprintf(sText.data(), sText.size(), fmt, again);
            sText.resize(nChars);
        }
    }
    va_end(again);
    return sText;
}

std::string string_format(const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    std::string sText = vstring_format(fmt, args);
    va_end(args);
    return sText;
}
