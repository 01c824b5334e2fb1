#include "relayserver/SccPChunker.h"

#include <algorithm>
#include <bit>
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

/// Seconds since the epoch with three decimals, then a tab.
void appendTime(std::string& rsOut, utc_time_t pt) {
    const std::int64_t nMillis = std::chrono::floor<milliseconds>(pt - ptEpoch).count();
    const std::string sDecimals = std::to_string(milliseconds::period::den + nMillis % 1000);
    rsOut += std::to_string(nMillis / milliseconds::period::den);
    rsOut += '.';
    rsOut.append(sDecimals, 1);
    rsOut += '\t';
}

void appendHex(std::string& rsOut, unsigned char b) {
    constexpr char achDigits[] = "0123456789abcdef";
    rsOut += achDigits[b >> 4];
    rsOut += achDigits[b & 0x0F];
}

/// Whole seconds from `ptFrom` to `ptTo`; none when the clock was set back between them.
unsigned long nSecsBetween(utc_time_t ptFrom, utc_time_t ptTo) {
    const std::int64_t nSecs = std::chrono::floor<seconds>(ptTo - ptFrom).count();
    return static_cast<unsigned long>(std::max<std::int64_t>(0, nSecs));
}

}  // namespace

unsigned char odd_parity_8(unsigned char b) {
    const bool bOdd = std::popcount(static_cast<unsigned char>(b & 0x7F)) % 2 == 1;
    return bOdd ? b : static_cast<unsigned char>(b | 0x80);
}

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

/// Appends the text of one field: for each caption that has bytes of it, the time, the bytes in
/// pairs and an empty line.
void SccPChunker::_bufSccPSnapshot(bool field1, std::string& rsOut) const {
    for (const auto& [pt, sBytes] : _byteMap) {
        std::size_t nTaken = 0;
        for (const char chByte : sBytes) {
            if (bIsOfField2(chByte) == field1) {
                continue;
            }
            if (nTaken == 0) {
                appendTime(rsOut, pt);
            } else if (nTaken % 2 == 0) {
                rsOut += ' ';
            }
            appendHex(rsOut, odd_parity_8(static_cast<unsigned char>(chByte)));
            ++nTaken;
        }
        if (nTaken > 0) {
            rsOut += nTaken % 2 == 0 ? "\r\n\r\n" : "80\r\n\r\n";
        }
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
