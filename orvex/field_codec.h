/// Numbers of payload fields, and the bounds of byte fields, shared by all message classes.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <string>

namespace Orvex {

/// A signed decimal field: leading digits count, anything else is 0, and a number out of the range
/// of a long is clamped to it before its low 32 bits are taken.
inline int nDecOf(const std::string& sField) {
    return static_cast<int>(std::strtol(sField.c_str(), nullptr, 10));
}

/// An unsigned field: decimal, "0x" hexadecimal or leading-zero octal; the low 32 bits are taken.
inline unsigned nUdecOf(const std::string& sField) {
    return static_cast<unsigned>(std::strtoul(sField.c_str(), nullptr, 0));
}

/// A field's bytes as a key or a ticket holds them; valid as long as the field.
inline const unsigned char* bytesOf(const std::string& sField) {
    return reinterpret_cast<const unsigned char*>(sField.data());
}

/// The bytes of `len` that a field of at most `nMax` bytes keeps; none without data.
inline int nBoundedLen(const void* data, int len, int nMax) {
    return data == nullptr ? 0 : std::clamp(len, 0, nMax);
}

}  // namespace Orvex
