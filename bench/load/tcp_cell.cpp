#include "bench/load/tcp_cell.h"

#include <algorithm>
#include <utility>

#include "bench/load/give_up.h"
#include "bench/load/quiet_time.h"
#include "bench/load/turn.h"

namespace Load {

namespace {

constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int64_t kNsPerSec = 1'000'000'000;
constexpr std::int64_t kWarmUpTimeoutNs = 20 * kNsPerSec;
constexpr std::int64_t kDeliveryTimeoutNs = 5 * kNsPerSec;

std::int64_t nToNs(double dSeconds) {
    return static_cast<std::int64_t>(dSeconds * static_cast<double>(kNsPerSec));
}

}  // namespace

TcpCell::TcpCell(const Options& cellOptions, Adapter& rAdapterOfDaemon, pid_t nPidOfDaemon)
    : options(cellOptions),
      rAdapter(rAdapterOfDaemon),
      nPid(nPidOfDaemon),
      cpuClock(nPidOfDaemon),
      crowd(cellOptions, rAdapterOfDaemon) {
    events.watch(timer.getFileDesc(), Party::kTimer, 0);
    if (rAdapter.fdToService() >= 0) {
        events.watch(rAdapter.fdToService(), Party::kAdapter, 0);
    }
}

void TcpCell::run() {
    crowd.connectGroups(events);
    warmUp(crowd.allSources());
    const std::int64_t nBefore = nResidentBytes(nPid);
    crowd.connectIdle();
    warmUp(crowd.allSources());
    printMemory(nBefore, nResidentBytes(nPid), options.nIdle);
    for (const Stage& stage : crowd.stages) {
        for (int i = 0; i < options.nRepeats; ++i) {
            awaitTurn([this] { crowd.keepAliveIfDue(); });
            prepareRepetition(stage);
            const Repetition repetition = runOnce(stage);
            printRepetition(stage.nFanout, repetition, findings);
        }
    }
}

// -- repetitions -----------------------------------------------------------------------------

bool TcpCell::bAwaitDeliveries(std::int64_t nTimeoutNs) {
    const std::int64_t nDeadline = nMonotonicNs() + nTimeoutNs;
    while (!crowd.bAllDelivered()) {
        if (nMonotonicNs() > nDeadline) {
            return false;
        }
        handleEvents(1);
    }
    return true;
}

void TcpCell::warmUp(gsl::span<Source> sources) {
    constexpr std::int64_t nOneTryNs = 100 * kNsPerMs;
    const std::int64_t nDeadline = nMonotonicNs() + kWarmUpTimeoutNs;
    do {
        if (nMonotonicNs() > nDeadline) {
            giveUp("messages do not reach all receivers");
        }
        for (Source& rSource : sources) {
            rSource.sendOne();
        }
    } while (!bAwaitDeliveries(nOneTryNs));
    for (Source& rSource : sources) {
        rSource.window.restartAt(rSource.nNextSequence());
    }
}

void TcpCell::prepareRepetition(const Stage& stage) {
    crowd.keepAliveIfDue();
    const double dNeeded = options.dSeconds * 1.2;
    const std::int64_t nQuietAt = nMonotonicNs() + nToNs(dSecondsUntilQuiet(dNeeded));
    while (nMonotonicNs() < nQuietAt) {
        handleEvents(10);
    }
    const gsl::span<Source> sources = crowd.sourcesOf(stage);
    warmUp(sources);
    ready.clear();
    limited.clear();
    for (Source& rSource : sources) {
        rSource.nBytesSent = 0;
    }
    findings = Findings{};
    findings.bLatencies = options.pace == Pace::kModerate;
}

Repetition TcpCell::runOnce(const Stage& stage) {
    Repetition repetition;
    const gsl::span<Source> sources = crowd.sourcesOf(stage);
    std::int64_t nSequencesBefore = 0;
    for (const Source& source : sources) {
        nSequencesBefore += source.nNextSequence();
    }
    const std::int64_t nCpuBefore = cpuClock.nNanoseconds();
    const std::int64_t nStart = nMonotonicNs();
    if (options.pace == Pace::kModerate) {
        sendModerately(stage, repetition);
    } else {
        sendFlatOut(stage);
    }
    repetition.bComplete = bAwaitDeliveries(kDeliveryTimeoutNs);
    repetition.nCpuNs = cpuClock.nNanoseconds() - nCpuBefore;
    repetition.nWallNs = nMonotonicNs() - nStart;
    repetition.nSent = -nSequencesBefore;
    for (const Source& source : sources) {
        repetition.nSent += source.nNextSequence();
        repetition.nBytesSent += source.nBytesSent;
    }
    return repetition;
}

// One message per beat; when we are late the message is skipped, because the daemon would find two
// at once.
void TcpCell::sendModerately(const Stage& stage, Repetition& rRepetition) {
    const gsl::span<Source> sources = crowd.sourcesOf(stage);
    timer.start(nMessageIntervalNs(stage.nFanout, options.dRate));
    const std::int64_t nEnd = nMonotonicNs() + nToNs(options.dSeconds);
    std::size_t nTurn = 0;
    while (nMonotonicNs() < nEnd) {
        handleEvents(-1);
        const std::int64_t nBeats = timer.nBeats();
        if (nBeats > 0) {
            sources[nTurn++ % sources.size()].sendOne();
            rRepetition.nMissedBeats += nBeats - 1;
        }
    }
    timer.stop();
    (void)timer.nBeats();
}

void TcpCell::sendFlatOut(const Stage& stage) {
    const std::int64_t nStart = nMonotonicNs();
    const std::int64_t nEnd = nStart + nToNs(options.dSeconds);
    for (std::size_t i = stage.nFirst; i < stage.nEnd; ++i) {
        ready.push_back(i);
    }
    std::vector<std::size_t> now;
    while (nMonotonicNs() < nEnd) {
        now.swap(ready);
        now.insert(now.end(), limited.begin(), limited.end());
        limited.clear();
        for (const std::size_t nGroup : now) {
            sendFrom(nGroup, nStart);
        }
        now.clear();
        handleEvents(limited.empty() ? 100 : 1);
    }
    finishSending(crowd.sourcesOf(stage));
}

void TcpCell::sendFrom(std::size_t nGroup, std::int64_t nStartNs) {
    Source& rSource = crowd.sources[nGroup];
    if (options.dSourceLimit == 0) {
        (void)rSource.nSendMany(options.nWindow);
        return;
    }
    const double dSeconds =
        static_cast<double>(nMonotonicNs() - nStartNs) / static_cast<double>(kNsPerSec);
    const double dAllowed =
        options.dSourceLimit * dSeconds - static_cast<double>(rSource.nBytesSent);
    // A whole window may be sent at the start, or the first round trips would be of single
    // messages.
    const double dNow = dAllowed + static_cast<double>(options.nWindow);
    if (dNow < static_cast<double>(rSource.nFrameLen())) {
        limited.push_back(nGroup);
        return;
    }
    (void)rSource.nSendMany(static_cast<std::size_t>(dNow));
    if (rSource.bMaySend()) {
        limited.push_back(nGroup);
    }
}

/// Partially written frames have to be completed.
void TcpCell::finishSending(gsl::span<Source> sources) {
    const std::int64_t nDeadline = nMonotonicNs() + kDeliveryTimeoutNs;
    while (!std::all_of(sources.begin(), sources.end(),
                        [](Source& rSource) { return rSource.bFlush(); })) {
        if (nMonotonicNs() > nDeadline) {
            giveUp("the daemon does not read its sources");
        }
        handleEvents(1);
    }
}

// -- events ----------------------------------------------------------------------------------

void TcpCell::handleEvents(int nTimeoutMs) {
    for (const epoll_event& event : events.wait(nTimeoutMs)) {
        const std::size_t nIndex = EventSet::nIndexOf(event);
        switch (EventSet::partyOf(event)) {
            case Party::kReceiver:
                handleReceiver(nIndex);
                break;
            case Party::kSource:
                if ((event.events & EPOLLIN) != 0) {
                    crowd.sources[nIndex].rConnectionOf().drain();
                }
                ready.push_back(nIndex);
                break;
            case Party::kAdapter:
                rAdapter.service();
                break;
            case Party::kTimer:
            case Party::kEntrant:
                break;
        }
    }
}

void TcpCell::handleReceiver(std::size_t nIndex) {
    Receiver& rReceiver = crowd.receivers[nIndex];
    const std::uint32_t nBefore = rReceiver.nNextSequence();
    // The kernel reports the rest again; a TLS session does not.
    while (rReceiver.bReadOnce(rAdapter, findings) && options.bTls) {
    }
    if (options.pace == Pace::kFlatOut) {
        const auto nGroup = static_cast<std::size_t>(rReceiver.getGroup());
        if (crowd.sources[nGroup].window.bAdvance(nBefore, rReceiver.nNextSequence())) {
            ready.push_back(nGroup);
        }
    }
}

}  // namespace Load
