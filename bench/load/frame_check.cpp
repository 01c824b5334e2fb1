#include "bench/load/frame_check.h"

#include <algorithm>
#include <cstring>

#include "bench/load/payload.h"

namespace Load {

bool FrameCheck::bSameBytes(const char* pFrame) const {
    const char* const pWanted = frame.sBytes.data();
    const std::size_t nRestAt = frame.nPayloadAt + kStampLen;
    return std::memcmp(pFrame, pWanted, frame.nPayloadAt) == 0 &&
           std::memcmp(pFrame + nRestAt, pWanted + nRestAt, nLength() - nRestAt) == 0;
}

bool FrameCheck::bBeginsLike(std::string_view svInput) const {
    const std::size_t nCompared = std::min(svInput.size(), frame.nPayloadAt);
    return std::memcmp(svInput.data(), frame.sBytes.data(), nCompared) == 0;
}

void SequenceCheck::take(const char* pFrame, std::int64_t nNow, Findings& rFindings) {
    std::uint32_t nSequence = 0;
    const char* const pPayload = pCheck->pPayloadOf(pFrame);
    if (!pCheck->bSameBytes(pFrame) || !bReadSequence(pPayload, nSequence) ||
        (bStarted && nSequence < nExpected)) {
        ++rFindings.nWrong;
        return;
    }
    if (bStarted) {
        rFindings.nLost += nSequence - nExpected;
    }
    bStarted = true;
    nExpected = nSequence + 1;
    ++rFindings.nDeliveries;
    std::uint64_t nSentAt = 0;
    if (rFindings.bLatencies && bReadTime(pPayload, nSentAt)) {
        rFindings.latency.record(nNow - static_cast<std::int64_t>(nSentAt));
    }
}

void SequenceCheck::giveUpBefore(std::uint32_t nSequence, Findings& rFindings) {
    if (nExpected < nSequence) {
        rFindings.nLost += nSequence - nExpected;
        nExpected = nSequence;
    }
}

}  // namespace Load
