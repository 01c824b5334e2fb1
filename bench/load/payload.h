/// The payload by which every delivery is checked, and its two numbers.
///
///   0   8 hexadecimal digits   sequence number of the source, from 0
///   8   16 hexadecimal digits  monotonic time of sending, nanoseconds
///   24  filler, the same for all messages of a cell
///
/// It contains no byte that any of the protocols would escape.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace Load {

constexpr std::size_t kSequenceDigits = 8;
constexpr std::size_t kTimeDigits = 16;
constexpr std::size_t kStampLen = kSequenceDigits + kTimeDigits;

/// A payload of `nLen` bytes, both numbers 0.
[[nodiscard]] std::string makePayload(std::size_t nLen);

/// Writes a sequence number and a time over the first 24 bytes of a payload.
void stampPayload(char* pPayload, std::uint32_t nSequence, std::uint64_t nTimeNs);

/// Reads 8 or 16 digits; false, and no number, when one of them is not a lower-case hexadecimal
/// digit.
[[nodiscard]] bool bReadSequence(const char* pPayload, std::uint32_t& nrSequence);
[[nodiscard]] bool bReadTime(const char* pPayload, std::uint64_t& nrTimeNs);

}  // namespace Load
