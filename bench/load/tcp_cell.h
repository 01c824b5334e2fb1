/// Some cells of the TCP table: sources and receivers of one daemon, measured a few times.
#pragma once

#include <sys/types.h>

#include <gsl/span>
#include <vector>

#include "bench/load/adapter.h"
#include "bench/load/cpu_clock.h"
#include "bench/load/crowd.h"
#include "bench/load/event_set.h"
#include "bench/load/options.h"
#include "bench/load/pace.h"
#include "bench/load/receiver.h"
#include "bench/load/repetition.h"
#include "bench/load/source.h"

namespace Load {

class TcpCell {
  public:
    /// The daemon is already running, and known to the adapter. Options and adapter must outlive
    /// the cell.
    TcpCell(const Options& cellOptions, Adapter& rAdapterOfDaemon, pid_t nPidOfDaemon);

    /// Connects all clients, waits until messages reach all receivers, and measures. Prints the
    /// results to standard output.
    void run();

  private:
    /// Sends from every source until all its receivers have received the same message.
    void warmUp(gsl::span<Source> sources);
    void prepareRepetition(const Stage& stage);
    [[nodiscard]] Repetition runOnce(const Stage& stage);
    void sendModerately(const Stage& stage, Repetition& rRepetition);
    void sendFlatOut(const Stage& stage);
    void sendFrom(std::size_t nGroup, std::int64_t nStartNs);
    void finishSending(gsl::span<Source> sources);
    [[nodiscard]] bool bAwaitDeliveries(std::int64_t nTimeoutNs);

    /// Waits for events, at most this long, and handles them.
    void handleEvents(int nTimeoutMs);
    void handleReceiver(std::size_t nIndex);

    const Options& options;
    Adapter& rAdapter;
    pid_t nPid;
    CpuClock cpuClock;
    EventSet events;
    PaceTimer timer;
    Crowd crowd;
    std::vector<std::size_t> ready;    ///< groups whose source may be able to send again
    std::vector<std::size_t> limited;  ///< groups whose source has reached its byte limit
    Findings findings;
};

}  // namespace Load
