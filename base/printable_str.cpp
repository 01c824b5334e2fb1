#include "base/printable_str.h"

#include <cctype>
#include <cstdio>

std::string printableStr(const char* bytes, int len, PrintableStrFormat fmt) {
    std::string sText;
    if (bytes == nullptr || len <= 0) {
        return sText;
    }
    const bool bKeepsAscii = fmt == asciiAndHex || fmt == asciiAndDecimal;
    const bool bDecimal = fmt == allDecimal || fmt == asciiAndDecimal;
    for (int i = 0; i < len; ++i) {
        // Unsigned, because isprint is not defined for negative values.
        const unsigned nByte = static_cast<unsigned char>(bytes[i]);
        if (bKeepsAscii && std::isprint(static_cast<int>(nByte)) != 0) {
            sText += bytes[i];
            continue;
        }
        char achCode[6];  // "[255]" is the longest.
        std::snprintf(achCode, sizeof achCode, bDecimal ? "[%u]" : "[%02x]", nByte);
        sText += achCode;
    }
    return sText;
}
