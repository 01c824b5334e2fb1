#include "bench/load/admission_cell.h"

#include <utility>

#include "bench/load/await_idle.h"
#include "bench/load/give_up.h"
#include "bench/load/quiet_time.h"
#include "bench/load/turn.h"

namespace Load {

namespace {

constexpr std::int64_t kNsPerSec = 1'000'000'000;
constexpr std::int64_t kServiceNs = kNsPerSec;
constexpr std::int64_t kTimeoutNs = 20 * kNsPerSec;
constexpr unsigned kFirstClientId = 4'000'000;
/// A repetition's log-ins divided by this are done once as a warm-up.
constexpr int kWarmUpShare = 10;

}  // namespace

AdmissionCell::AdmissionCell(const Options& cellOptions, Adapter& rAdapterOfDaemon,
                             pid_t nPidOfDaemon)
    : options(cellOptions),
      rAdapter(rAdapterOfDaemon),
      nPid(nPidOfDaemon),
      cpuClock(nPidOfDaemon),
      nNextClientId(kFirstClientId) {
    if (rAdapter.fdToService() >= 0) {
        events.watch(rAdapter.fdToService(), Party::kAdapter, 0);
    }
}

void AdmissionCell::run() {
    prepareRepetition(1 + options.nLogins / kWarmUpShare);
    (void)runOnce();
    disconnectAll();
    const std::int64_t nBefore = nResidentBytes(nPid);
    std::int64_t nWithAll = 0;
    for (int i = 0; i < options.nRepeats; ++i) {
        awaitTurn([] {});
        prepareRepetition(options.nLogins);
        const Repetition repetition = runOnce();
        Findings findings;
        findings.nDeliveries = static_cast<std::int64_t>(nAdmitted);
        printRepetition(options.fanouts.front(), repetition, findings);
        nWithAll = nResidentBytes(nPid);
        disconnectAll();
    }
    constexpr int kNoneIdle = 0;
    printMemory(nBefore, nWithAll, kNoneIdle);
}

void AdmissionCell::prepareRepetition(int nLogins) {
    logIns.clear();
    entrants.clear();
    nAdmitted = 0;
    // Events carry the entrants' indexes.
    entrants.reserve(static_cast<std::size_t>(nLogins));
    const double dQuietIn = dSecondsUntilQuiet(options.dSeconds);
    const auto nQuietIn = static_cast<std::int64_t>(dQuietIn * static_cast<double>(kNsPerSec));
    for (const std::int64_t nUntil = nMonotonicNs() + nQuietIn; nMonotonicNs() < nUntil;) {
        handleEvents(10);
    }
    for (int i = 0; i < nLogins; ++i) {
        logIns.push_back(rAdapter.sLogInFrame(nNextClientId++));
    }
    awaitIdleDaemon();
}

Repetition AdmissionCell::runOnce() {
    Repetition repetition;
    const std::int64_t nCpuBefore = cpuClock.nNanoseconds();
    const std::int64_t nStart = nMonotonicNs();
    while (nAdmitted < logIns.size()) {
        while (entrants.size() < logIns.size() &&
               entrants.size() - nAdmitted < static_cast<std::size_t>(options.nInFlight)) {
            beginOne();
        }
        handleEvents(100);
        if (nMonotonicNs() - nStart > kTimeoutNs) {
            giveUp("clients got no answer: %zu of %zu are admitted", nAdmitted, logIns.size());
        }
    }
    repetition.nWallNs = nMonotonicNs() - nStart;
    awaitIdleDaemon();
    repetition.nCpuNs = cpuClock.nNanoseconds() - nCpuBefore;
    repetition.nSent = static_cast<std::int64_t>(entrants.size());
    repetition.bComplete = true;
    return repetition;
}

void AdmissionCell::beginOne() {
    const std::size_t nIndex = entrants.size();
    Connection connection = Connection::begin(options, nConnections++);
    connection.nId = kFirstClientId + static_cast<unsigned>(nConnections) - 1;
    events.watch(connection.getFileDesc(), Party::kEntrant, nIndex);
    entrants.emplace_back(std::move(connection), std::move(logIns[nIndex]));
    nAdmitted += entrants.back().bStep() ? 1 : 0;
}

void AdmissionCell::disconnectAll() {
    entrants.clear();
    awaitIdleDaemon();
}

void AdmissionCell::awaitIdleDaemon() {
    awaitIdle(cpuClock, [this] { handleEvents(1); });
}

void AdmissionCell::handleEvents(int nTimeoutMs) {
    for (const epoll_event& event : events.wait(nTimeoutMs)) {
        if (EventSet::partyOf(event) == Party::kAdapter) {
            rAdapter.service();
        } else {
            nAdmitted += entrants[EventSet::nIndexOf(event)].bStep() ? 1 : 0;
        }
    }
    if (nMonotonicNs() - nLastServiceNs > kServiceNs) {
        rAdapter.serviceTimer();
        nLastServiceNs = nMonotonicNs();
    }
}

}  // namespace Load
