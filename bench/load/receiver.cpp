#include "bench/load/receiver.h"

#include <array>
#include <cstring>

#include "bench/load/cpu_clock.h"
#include "bench/load/give_up.h"

namespace Load {

namespace {

constexpr std::size_t kReadSize = 262144;

/// Shared by all receivers: a receiver's incomplete frame is put before what is read for it.
std::array<char, Connection::kTailSize + kReadSize> achInput;

}  // namespace

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
        giveUp("a receiver's input cannot be parsed");
    }
    connection.nTail = svRest.size();
    std::memcpy(connection.achTail.data(), svRest.data(), svRest.size());
    return true;
}

/// Checks all complete frames; returns their length in bytes.
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
            sequence.take(svRest.data(), nNow, rFindings);
            nAt += nFrameLen;
        }
    }
    return nAt;
}

}  // namespace Load
