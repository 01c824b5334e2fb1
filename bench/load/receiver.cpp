#include "bench/load/receiver.h"

#include <algorithm>
#include <array>
#include <cstring>

#include "bench/load/cpu_clock.h"
#include "bench/load/give_up.h"
#include "bench/load/payload.h"

namespace Load {

namespace {

constexpr std::size_t kReadSize = 262144;

/// Shared by all receivers: the tail of one is put in front of what is read for it.
std::array<char, Connection::kTailSize + kReadSize> achInput;

}  // namespace

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

bool Receiver::bReadOnce(const Adapter& adapter, Findings& rFindings) {
    char* const pFresh = achInput.data() + Connection::kTailSize;
    char* const pStart = pFresh - connection.nTail;
    const std::size_t nRead = connection.nReadSome(pFresh, kReadSize);
    if (nRead == 0) {
        return false;
    }
    std::memcpy(pStart, connection.achTail.data(), connection.nTail);
    const std::string_view svInput(pStart, connection.nTail + nRead);
    const std::string_view svRest = svInput.substr(nConsume(svInput, adapter, rFindings));
    if (svRest.size() > Connection::kTailSize) {
        giveUp("a receiver cannot make out its input");
    }
    connection.nTail = svRest.size();
    std::memcpy(connection.achTail.data(), svRest.data(), svRest.size());
    return true;
}

/// Checks all frames that have come whole; returns the bytes that they take.
std::size_t Receiver::nConsume(std::string_view svInput, const Adapter& adapter,
                               Findings& rFindings) {
    const std::int64_t nNow = rFindings.bLatencies ? nMonotonicNs() : 0;
    const std::size_t nFrameLen = pCheck->nLength();
    std::size_t nAt = 0;
    while (nAt < svInput.size()) {
        const std::string_view svRest = svInput.substr(nAt);
        if (!pCheck->bBeginsLike(svRest)) {
            const std::size_t nOther = adapter.nOtherFrameLen(svRest);
            if (nOther == 0) {
                break;
            }
            nAt += nOther;
        } else if (svRest.size() < nFrameLen) {
            break;
        } else {
            check(svRest.data(), nNow, rFindings);
            nAt += nFrameLen;
        }
    }
    return nAt;
}

void Receiver::check(const char* pFrame, std::int64_t nNow, Findings& rFindings) {
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

}  // namespace Load
