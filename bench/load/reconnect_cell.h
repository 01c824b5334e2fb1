/// A relay with many clients whose connection server goes away and comes back: how long it takes
/// until the server knows all of them again.
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
    /// The daemon is a relay, runs already, and is known to the adapter. Options and adapter must
    /// outlive the cell.
    ReconnectCell(const Options& cellOptions, Adapter& rAdapterOfDaemon, pid_t nPidOfDaemon);

    /// Connects the idle clients of the options, and cuts the relay off from its server as often
    /// as there are repetitions. Prints the results to standard output.
    void run();

  private:
    void awaitNextTry();
    /// From the server's "OK" to the log-in until the relay has named its clients and told its
    /// ports, which it does last.
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
