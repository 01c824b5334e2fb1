#include "relayserver/SccPChunker.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

#include "base/string_format.h"

using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

constexpr unsigned char kField2Tag = 0x80;

bool bIsOfField2(char chByte) {
    return (static_cast<unsigned char>(chByte) & kField2Tag) != 0;
}

/// The command that erases what is displayed, on either of the field's two caption channels.
bool bIsErase(char chFirst, char chSecond) {
    const int nFirst = chFirst & 0x7F;
    return (nFirst == 0x14 || nFirst == 0x15) && (chSecond & 0x7F) == 0x2C;
}

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

/// What each byte is written as: two hexadecimal digits, with its parity.
constexpr hex_table_t kHexWithParity = makeHexTable();

/// What stands before, between and behind the bytes of one caption takes at most so much.
constexpr std::size_t kMaxFrameLen = 32;

/// Writes seconds since the epoch with three decimals, then a tab; returns the end.
char* writeTime(char* pchOut, utc_time_t pt) {
    const auto sinceEpoch = std::chrono::floor<milliseconds>(pt - ptEpoch);
    const auto nMillis = static_cast<std::uint64_t>(sinceEpoch.count());
    constexpr std::ptrdiff_t kMaxDigits = 20;
    pchOut = std::to_chars(pchOut, pchOut + kMaxDigits, nMillis / 1000).ptr;
    *pchOut++ = '.';
    for (unsigned nUnit = 100; nUnit > 0; nUnit /= 10) {
        *pchOut++ = static_cast<char>('0' + nMillis / nUnit % 10);
    }
    *pchOut++ = '\t';
    return pchOut;
}

/// Writes the bytes of one field in pairs, the last one completed; returns the end, which is
/// `pchOut` when the caption has none.
char* writePairs(char* pchOut, std::string_view svBytes, bool field1) {
    std::size_t nTaken = 0;
    for (const char chByte : svBytes) {
        if (bIsOfField2(chByte) == field1) {
            continue;
        }
        if (nTaken > 0 && nTaken % 2 == 0) {
            *pchOut++ = ' ';
        }
        const auto& achHex = kHexWithParity[static_cast<unsigned char>(chByte)];
        pchOut = std::copy(achHex.begin(), achHex.end(), pchOut);
        ++nTaken;
    }
    return nTaken % 2 == 0 ? pchOut : std::copy_n("80", 2, pchOut);
}

/// Whole seconds from `ptFrom` to `ptTo`; none when the clock was set back between them.
unsigned long nSecsBetween(utc_time_t ptFrom, utc_time_t ptTo) {
    const std::int64_t nSecs = std::chrono::floor<seconds>(ptTo - ptFrom).count();
    return static_cast<unsigned long>(std::max<std::int64_t>(0, nSecs));
}

}  // namespace

SccPChunker::SccPChunker(unsigned sourceID) : _nSourceID(sourceID), _ptLastSent(ptNow()) {}

std::string SccPChunker::sTakePairs(std::string_view captionBytes) {
    std::string sKept;
    for (std::size_t i = 0; i + 1 < captionBytes.size(); i += 2) {
        const std::string_view svPair = captionBytes.substr(i, 2);
        const bool bErase = bIsErase(svPair[0], svPair[1]);
        bool& rbLastPairErase = _bLastPairErase[bIsOfField2(svPair[0]) ? 1 : 0];
        if (!(bErase && rbLastPairErase)) {
            sKept += svPair;
        }
        rbLastPairErase = bErase;
    }
    return sKept;
}

void SccPChunker::add(std::string_view captionBytes) {
    if (_byteMap.size() > kMaxSentCaptions) {
        return;
    }
    std::string sKept = sTakePairs(captionBytes);
    if (!sKept.empty()) {
        _byteMap.try_emplace(_byteMap.end(), ptNow(), std::move(sKept));
    }
}

/// Appends the text of one field: for each caption that has bytes of it the time, the bytes in
/// pairs and an empty line.
void SccPChunker::_bufSccPSnapshot(bool field1, std::string& rsOut) const {
    for (const auto& [pt, sBytes] : _byteMap) {
        const std::size_t nStart = rsOut.size();
        rsOut.resize(nStart + kMaxFrameLen + 3 * sBytes.size());
        char* const pchStart = rsOut.data() + nStart;
        char* const pchBytes = writeTime(pchStart, pt);
        char* pchEnd = writePairs(pchBytes, sBytes, field1);
        pchEnd = pchEnd == pchBytes ? pchStart : std::copy_n("\r\n\r\n", 4, pchEnd);
        rsOut.resize(static_cast<std::size_t>(pchEnd - rsOut.data()));
    }
}

std::string SccPChunker::getChunkPayloadJson() {
    const utc_time_t ptThisTime = ptNow();
    std::string sJson = string_format(
        R"({"time" : %lu,"dur" : %lu,"feedID" : "%u","CaptionData" : {"format" : "SCCP","S1data" : ")",
        nSecsBetween(ptEpoch, ptThisTime), nSecsBetween(_ptLastSent, ptThisTime), _nSourceID);
    _bufSccPSnapshot(true, sJson);
    sJson += R"(","S2data" : ")";
    _bufSccPSnapshot(false, sJson);
    sJson += R"("}})";
    sJson.shrink_to_fit();  // it may have to wait for long
    clear();
    _ptLastSent = ptThisTime;
    return sJson;
}

void SccPChunker::clear() {
    _byteMap.clear();
}

utc_time_t SccPChunker::getBufferOldest() const {
    return _byteMap.empty() ? ptNow() : _byteMap.begin()->first;
}

bool SccPChunker::isInactiveSince(utc_time_t t) const {
    return t > _ptLastSent && _byteMap.empty();
}
