#include "bench/load/reconnect_cell.h"

#include <poll.h>

#include "bench/load/await_idle.h"
#include "bench/load/give_up.h"
#include "bench/load/identification.h"
#include "bench/load/quiet_time.h"
#include "bench/load/turn.h"

namespace Load {

namespace {

constexpr std::int64_t kNsPerSec = 1'000'000'000;
/// A relay reconnects at once when its last attempt was a second ago, by a clock of whole seconds;
/// otherwise it waits for its timers.
constexpr std::int64_t kTryAgainNs = kNsPerSec + kNsPerSec / 20;

ServerStandIn& rServerOf(Adapter& rAdapter) {
    ServerStandIn* const pServer = rAdapter.pConnectionServer();
    if (pServer == nullptr) {
        giveUp("this daemon has no connection server");
    }
    return *pServer;
}

}  // namespace

ReconnectCell::ReconnectCell(const Options& cellOptions, Adapter& rAdapterOfDaemon,
                             pid_t nPidOfDaemon)
    : options(cellOptions),
      rAdapter(rAdapterOfDaemon),
      rServer(rServerOf(rAdapterOfDaemon)),
      nPid(nPidOfDaemon),
      cpuClock(nPidOfDaemon),
      crowd(cellOptions, rAdapterOfDaemon),
      nLinkUpNs(nMonotonicNs()) {}

void ReconnectCell::run() {
    const std::int64_t nBefore = nResidentBytes(nPid);
    crowd.connectIdle();
    ids = crowd.idsOfIdle();
    printMemory(nBefore, nResidentBytes(nPid), options.nIdle);
    for (int i = 0; i < options.nRepeats; ++i) {
        awaitTurn([this] { crowd.keepAliveIfDue(); });
        awaitNextTry();
        Findings findings;
        const Repetition repetition = runOnce(findings);
        printRepetition(options.fanouts.front(), repetition, findings);
    }
}

void ReconnectCell::awaitIdleDaemon() {
    awaitIdle(cpuClock, [this] {
        (void)poll(nullptr, 0, 1);
        rServer.readAll();
    });
}

void ReconnectCell::awaitNextTry() {
    const auto wait = [this](std::int64_t nUntil) {
        while (nMonotonicNs() < nUntil) {
            (void)poll(nullptr, 0, 10);
            crowd.keepAliveIfDue();
        }
    };
    wait(nLinkUpNs + kTryAgainNs);
    const double dQuietIn = dSecondsUntilQuiet(options.dSeconds);
    wait(nMonotonicNs() + static_cast<std::int64_t>(dQuietIn * static_cast<double>(kNsPerSec)));
    awaitIdleDaemon();
}

Repetition ReconnectCell::runOnce(Findings& rFindings) {
    Repetition repetition;
    rServer.resetLink();
    rServer.awaitLogIn();
    nLinkUpNs = nMonotonicNs();
    const std::int64_t nCpuBefore = cpuClock.nNanoseconds();
    const std::int64_t nStart = nMonotonicNs();
    const std::vector<unsigned> named = rServer.acceptLogIn();
    repetition.nWallNs = nMonotonicNs() - nStart;
    awaitIdleDaemon();
    repetition.nCpuNs = cpuClock.nNanoseconds() - nCpuBefore;
    Identification identification(ids);
    identification.note(named);
    repetition.nSent = static_cast<std::int64_t>(ids.size());
    repetition.bComplete = identification.nMissing() == 0;
    rFindings.nDeliveries = identification.nNamed();
    rFindings.nLost = identification.nMissing();
    rFindings.nWrong = identification.nWrong();
    return repetition;
}

}  // namespace Load
