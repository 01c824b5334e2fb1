/// Many clients that connect in sequence, each with a ticket: the cost of admitting them.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "bench/load/adapter.h"
#include "bench/load/cpu_clock.h"
#include "bench/load/entrant.h"
#include "bench/load/event_set.h"
#include "bench/load/options.h"
#include "bench/load/repetition.h"

namespace Load {

class AdmissionCell {
  public:
    /// The daemon is already running, and known to the adapter. Options and adapter must outlive
    /// the cell.
    AdmissionCell(const Options& cellOptions, Adapter& rAdapterOfDaemon, pid_t nPidOfDaemon);

    /// Admits clients, a few at a time, and disconnects them all at the end of each repetition.
    /// Prints the results to standard output.
    void run();

  private:
    void prepareRepetition(int nLogins);
    /// From the first connect to the last answer; the processor time includes what the daemon does
    /// after that answer, but not the disconnects.
    [[nodiscard]] Repetition runOnce();
    void beginOne();
    void disconnectAll();
    /// Waits for events, at most this long, and handles them.
    void handleEvents(int nTimeoutMs);
    void awaitIdleDaemon();

    const Options& options;
    Adapter& rAdapter;
    pid_t nPid;
    CpuClock cpuClock;
    EventSet events;
    /// For this repetition, prepared in advance: encrypting tickets would slow us down.
    std::vector<std::string> logIns;
    std::vector<Entrant> entrants;
    std::size_t nAdmitted = 0;
    int nConnections = 0;  ///< in all repetitions
    unsigned nNextClientId;
    std::int64_t nLastServiceNs = 0;
};

}  // namespace Load
