#include "relayserver/archive/SccPChunker.h"

#include <limits>
#include <utility>

namespace {

/// The command that erases what is displayed, on either of the field's two caption channels.
[[nodiscard]] bool bIsErase(char chFirst, char chSecond) {
    const int nFirst = chFirst & 0x7F;
    return (nFirst == 0x14 || nFirst == 0x15) && (chSecond & 0x7F) == 0x2C;
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
    if (sKept.empty()) {
        return;
    }
    const auto [itCaption, bNew] = _byteMap.try_emplace(ptNow(), std::move(sKept));
    if (bNew) {
        _nTextBytes += nSccPTextBytes(itCaption->second);
    }
}

SccPChunk SccPChunker::takeChunk() {
    SccPChunk chunk{_nSourceID, _ptLastSent, ptNow(), std::move(_byteMap), _nTextBytes};
    clear();
    _ptLastSent = chunk.ptThisTime;
    return chunk;
}

std::string SccPChunker::getChunkPayloadJson() {
    SccPRendering rendering(takeChunk());
    std::size_t nBudget = std::numeric_limits<std::size_t>::max();
    (void)rendering.bWriteOn(nBudget);  // enough to complete the text
    return rendering.sTakeText();
}

void SccPChunker::clear() {
    _byteMap.clear();
    _nTextBytes = 0;
}

utc_time_t SccPChunker::getBufferOldest() const {
    return _byteMap.empty() ? ptNow() : _byteMap.begin()->first;
}

bool SccPChunker::isInactiveSince(utc_time_t t) const {
    return t > _ptLastSent && _byteMap.empty();
}
