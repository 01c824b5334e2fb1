#include "bench/load/source.h"

#include <algorithm>
#include <utility>

#include "bench/load/cpu_clock.h"
#include "bench/load/give_up.h"
#include "bench/load/payload.h"

namespace Load {

SendWindow::SendWindow(std::uint32_t nMessages, int nOfReceivers)
    : nBlockLen(std::max(nMessages / kBlocks, 1U)), nReceivers(nOfReceivers) {}

void SendWindow::restartAt(std::uint32_t nSequence) {
    nFloor = nSequence;
    nFirst = 0;
    anFinished.fill(0);
}

bool SendWindow::bAdvance(std::uint32_t nBefore, std::uint32_t nNow) {
    const std::uint32_t nFrom = (nBefore - nFloor) / nBlockLen;
    const std::uint32_t nTo = std::min((nNow - nFloor) / nBlockLen, kBlocks);
    for (std::uint32_t n = nFrom; n < nTo; ++n) {
        ++anFinished[(nFirst + n) % kBlocks];
    }
    bool bMoved = false;
    while (anFinished[nFirst] == nReceivers) {
        anFinished[nFirst] = 0;
        nFirst = (nFirst + 1) % kBlocks;
        nFloor += nBlockLen;
        bMoved = true;
    }
    return bMoved;
}

Source::Source(Connection&& rConnection, const Frame& frame, const SendWindow& windowOfGroup)
    : window(windowOfGroup),
      connection(std::move(rConnection)),
      nLength(frame.sBytes.size()),
      nPayloadAt(frame.nPayloadAt),
      nMost(static_cast<std::uint32_t>(kBurstBytes / nLength)) {
    for (std::uint32_t i = 0; i < nMost; ++i) {
        sBurst += frame.sBytes;
    }
}

void Source::sendOne() {
    stampPayload(sBurst.data() + nPayloadAt, nNext, static_cast<std::uint64_t>(nMonotonicNs()));
    ++nNext;
    nBytesSent += static_cast<std::int64_t>(nLength);
    if (connection.nWriteSome({sBurst.data(), nLength}) != nLength) {
        giveUp("a source at the moderate rate has no room in its socket");
    }
}

void Source::fill(std::uint32_t nMessages) {
    char* pPayload = sBurst.data() + nPayloadAt;
    for (std::uint32_t i = 0; i < nMessages; ++i, pPayload += nLength) {
        stampPayload(pPayload, nNext++, 0);
    }
    nAt = 0;
    nPending = nMessages * nLength;
}

/// True when all of it was written.
bool Source::bWritePending() {
    const std::size_t nWritten = connection.nWriteSome({sBurst.data() + nAt, nPending});
    nAt += nWritten;
    nPending -= nWritten;
    nBytesSent += static_cast<std::int64_t>(nWritten);
    return nPending == 0;
}

bool Source::bFlush() {
    while (nPending > 0) {
        const std::size_t nBefore = nPending;
        if (!bWritePending() && nPending == nBefore) {
            return false;
        }
    }
    return true;
}

std::size_t Source::nSendMany(std::size_t nByteLimit) {
    const std::int64_t nBefore = nBytesSent;
    auto nLeft = static_cast<std::uint32_t>(nByteLimit / nLength);
    while (bFlush() && nLeft > 0 && nNext < window.nEnd()) {
        const std::uint32_t nNow = std::min({nLeft, window.nEnd() - nNext, nMost});
        fill(nNow);
        nLeft -= nNow;
    }
    return static_cast<std::size_t>(nBytesSent - nBefore);
}

}  // namespace Load
