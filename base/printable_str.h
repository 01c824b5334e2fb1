/// Bytes as readable text, for logs.
#pragma once

#include <string>

/// Which bytes are shown as characters, and how the others are written: "[7]" or "[07]". The
/// numbers are fixed.
enum PrintableStrFormat {
    allHex = 0,           ///< every byte in hexadecimal
    allDecimal = 1,       ///< every byte in decimal
    asciiAndHex = 2,      ///< printable characters as they are, the others in hexadecimal
    asciiAndDecimal = 3,  ///< printable characters as they are, the others in decimal
};

/// The `len` bytes at `bytes` as text. Hexadecimal numbers have two lower-case digits, decimal ones
/// as many as needed. Empty when `bytes` is null or `len` is 0 or less. Any thread.
std::string printableStr(const char* bytes, int len, PrintableStrFormat fmt);
