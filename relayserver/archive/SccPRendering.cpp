#include "relayserver/archive/SccPRendering.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <iterator>

#include "base/string_format.h"

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr std::string_view kBetweenFields = R"(","S2data" : ")";
constexpr std::string_view kEnd = R"("}})";

using hex_table_t = std::array<std::array<char, 2>, 256>;

constexpr hex_table_t makeHexTable() {
    constexpr char achDigits[] = "0123456789abcdef";
    hex_table_t table{};
    for (unsigned i = 0; i < 256; ++i) {
        const unsigned char b = odd_parity_8(static_cast<unsigned char>(i));
        table[i] = {achDigits[b >> 4], achDigits[b & 0x0F]};
    }
    return table;
}

/// Each byte as it is written: two hexadecimal digits, with parity.
constexpr hex_table_t kHexWithParity = makeHexTable();

/// Appends seconds since the epoch with three decimals, then a tab.
void appendTime(std::string& rsOut, utc_time_t pt) {
    const auto sinceEpoch = std::chrono::floor<milliseconds>(pt - ptEpoch);
    const auto nMillis = static_cast<std::uint64_t>(sinceEpoch.count());
    rsOut += std::to_string(nMillis / 1000);
    rsOut += '.';
    for (unsigned nUnit = 100; nUnit > 0; nUnit /= 10) {
        rsOut += static_cast<char>('0' + nMillis / nUnit % 10);
    }
    rsOut += '\t';
}

/// The text size of `nBytes` bytes of one field: time, tab, digits in pairs separated by spaces,
/// line ends.
constexpr std::size_t nBlockBytes(std::size_t nBytes) {
    return nBytes == 0 ? 0 : 14 + 1 + 2 * (nBytes + nBytes % 2) + (nBytes - 1) / 2 + 4;
}

/// Whole seconds from `ptFrom` to `ptTo`; 0 if the clock was set back between them.
unsigned long nSecsBetween(utc_time_t ptFrom, utc_time_t ptTo) {
    const std::int64_t nSecs = std::chrono::floor<seconds>(ptTo - ptFrom).count();
    return static_cast<unsigned long>(std::max<std::int64_t>(0, nSecs));
}

}  // namespace

std::size_t nSccPTextBytes(std::string_view svCaption) {
    const auto nField2 =
        static_cast<std::size_t>(std::count_if(svCaption.begin(), svCaption.end(), bIsOfField2));
    return nBlockBytes(svCaption.size() - nField2) + nBlockBytes(nField2);
}

SccPRendering::SccPRendering(SccPChunk chunk)
    : _chunk(std::move(chunk)), _itNext(_chunk.byteMap.begin()) {
    const std::string sHead = string_format(
        R"({"time" : %lu,"dur" : %lu,"feedID" : "%u","CaptionData" : {"format" : "SCCP","S1data" : ")",
        nSecsBetween(ptEpoch, _chunk.ptThisTime),
        nSecsBetween(_chunk.ptLastSent, _chunk.ptThisTime), _chunk.nSourceID);
    // All at once: a text that grows is copied each time.
    _sText.reserve(sHead.size() + _chunk.nTextBytes + kBetweenFields.size() + kEnd.size());
    _sText = sHead;
}

bool SccPRendering::bWriteOn(std::size_t& rnBudget) {
    if (!_bField1Written) {
        if (!_bufSccPSnapshot(true, rnBudget)) {
            return false;
        }
        _bField1Written = true;
        _itNext = _chunk.byteMap.begin();
        _sText += kBetweenFields;
    }
    if (!_bufSccPSnapshot(false, rnBudget)) {
        return false;
    }
    _sText += kEnd;
    return true;
}

/// Writes the text of one field as far as the budget allows; true if it is complete. A caption is
/// freed once its field 2 is written.
bool SccPRendering::_bufSccPSnapshot(bool field1, std::size_t& rnBudget) {
    while (_itNext != _chunk.byteMap.end() && rnBudget > 0) {
        const auto& [pt, sBytes] = *_itNext;
        rnBudget -= std::min(rnBudget, kCaptionCost + sBytes.size());
        _writeCaption(pt, sBytes, field1);
        _itNext = field1 ? std::next(_itNext) : _chunk.byteMap.erase(_itNext);
    }
    return _itNext == _chunk.byteMap.end();
}

/// Appends the time, the bytes of one field in pairs, the last one padded, and an empty line;
/// nothing if the caption has no byte of that field.
void SccPRendering::_writeCaption(utc_time_t pt, std::string_view svBytes, bool field1) {
    std::size_t nTaken = 0;
    for (const char chByte : svBytes) {
        if (bIsOfField2(chByte) == field1) {
            continue;
        }
        if (nTaken == 0) {
            appendTime(_sText, pt);
        } else if (nTaken % 2 == 0) {
            _sText += ' ';
        }
        const auto& achHex = kHexWithParity[static_cast<unsigned char>(chByte)];
        _sText.append(achHex.data(), achHex.size());
        ++nTaken;
    }
    if (nTaken % 2 == 1) {
        _sText += "80";
    }
    if (nTaken > 0) {
        _sText += "\r\n\r\n";
    }
}
