/// Numbers in payload fields and bounds of byte fields, shared by all message classes. Any thread.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <string>

namespace Orvex {

/// The value of a signed decimal field: its leading digits, or 0 without any. A number out of the
/// range of a long is clamped to it before its low 32 bits are taken.
inline int nDecOf(const std::string& sField) {
    return static_cast<int>(std::strtol(sField.c_str(), nullptr, 10));
}

/// The value of an unsigned field: decimal, "0x" hexadecimal or leading-zero octal; 0 without
/// digits. The low 32 bits are taken.
inline unsigned nUdecOf(const std::string& sField) {
    return static_cast<unsigned>(std::strtoul(sField.c_str(), nullptr, 0));
}

/// A field's bytes as unsigned ones, for keys and tickets; valid as long as the field.
inline const unsigned char* bytesOf(const std::string& sField) {
    return reinterpret_cast<const unsigned char*>(sField.data());
}

/// `len` limited to 0..`nMax`; 0 if `data` is null.
inline int nBoundedLen(const void* data, int len, int nMax) {
    return data == nullptr ? 0 : std::clamp(len, 0, nMax);
}

}  // namespace Orvex
