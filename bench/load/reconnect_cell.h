/// A relay with many clients whose connection server goes away and comes back: the time until the
/// server knows all of them again.
#pragma once

#include <sys/types.h>

#include <vector>

#include "bench/load/adapter.h"
#include "bench/load/cpu_clock.h"
#include "bench/load/crowd.h"
#include "bench/load/options.h"
#include "bench/load/repetition.h"
#include "bench/load/server_stand_in.h"

namespace Load {

class ReconnectCell {
  public:
    /// The daemon is a relay, already running, and known to the adapter. Options and adapter must
    /// outlive the cell.
    ReconnectCell(const Options& cellOptions, Adapter& rAdapterOfDaemon, pid_t nPidOfDaemon);

    /// Connects the idle clients of the options, and disconnects the relay from its server once per
    /// repetition. Prints the results to standard output.
    void run();

  private:
    void awaitNextTry();
    /// From the server's "OK" to the log-in until the relay has reported its clients and then its
    /// ports.
    [[nodiscard]] Repetition runOnce(Findings& rFindings);
    void awaitIdleDaemon();

    const Options& options;
    Adapter& rAdapter;
    ServerStandIn& rServer;
    pid_t nPid;
    CpuClock cpuClock;
    Crowd crowd;
    std::vector<unsigned> ids;
    std::int64_t nLinkUpNs = 0;  ///< when the relay connected to the server
};

}  // namespace Load
