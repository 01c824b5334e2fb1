/// Renders the captions of one source as JSON, a part at a time: a long text at once would delay
/// the event loop. Main thread only.
#pragma once

#include <bit>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>

#include "base/clock.h"

/// The Unix epoch, from which the archive's times count.
constexpr utc_time_t ptEpoch{};

/// `b` with odd parity: unchanged if its lower seven bits hold an odd number of ones, else with bit
/// 7 set. Bit 7 is never cleared, so bytes of field 2 may get even parity: receivers expect this.
[[nodiscard]] constexpr unsigned char odd_parity_8(unsigned char b) {
    const bool bOdd = std::popcount(b & 0x7FU) % 2 == 1;
    return bOdd ? b : static_cast<unsigned char>(b | 0x80U);
}

/// Whether a caption byte, as stored, belongs to field 2: bit 7 tells the field.
[[nodiscard]] constexpr bool bIsOfField2(char chByte) {
    return (static_cast<unsigned char>(chByte) & 0x80U) != 0;
}

/// The text size of a caption, both fields together, while the time has ten digits before the point
/// (from 2001 to 2286).
[[nodiscard]] std::size_t nSccPTextBytes(std::string_view svCaption);

/// What a source has collected between two renderings.
struct SccPChunk {
    unsigned nSourceID = 0;
    /// The time of the previous rendering, and of this one.
    utc_time_t ptLastSent;
    utc_time_t ptThisTime;
    /// The bytes of each caption, by the time of its arrival.
    std::map<utc_time_t, std::string> byteMap;
    /// `nSccPTextBytes` of all of them.
    std::size_t nTextBytes = 0;
};

/// The JSON text of one chunk.
class SccPRendering {
  public:
    /// A rendering of `chunk` of which only the head is written.
    explicit SccPRendering(SccPChunk chunk);
    SccPRendering(const SccPRendering&) = delete;
    SccPRendering& operator=(const SccPRendering&) = delete;

    /// The cost of writing a caption without bytes; a byte costs 1.
    static constexpr std::size_t kCaptionCost = 32;

    /// Continues the text and subtracts the cost of each caption (its bytes and `kCaptionCost`, for
    /// each of the two fields) from `rnBudget` until that is used up; with a budget above 0 writes
    /// at least one caption. True when the text is complete.
    [[nodiscard]] bool bWriteOn(std::size_t& rnBudget);

    /// The text, once it is complete. Line ends (CR LF) are not escaped in the strings, which
    /// strict JSON does not allow; receivers expect this.
    [[nodiscard]] std::string sTakeText() { return std::move(_sText); }

  private:
    [[nodiscard]] bool _bufSccPSnapshot(bool field1, std::size_t& rnBudget);
    void _writeCaption(utc_time_t pt, std::string_view svBytes, bool field1);

    SccPChunk _chunk;
    std::string _sText;
    bool _bField1Written = false;
    /// The next caption to write.
    std::map<utc_time_t, std::string>::iterator _itNext;
};
