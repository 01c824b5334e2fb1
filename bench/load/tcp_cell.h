/// One cell of the TCP table: sources and receivers of one daemon, run a few times.
#pragma once

#include <sys/types.h>

#include <memory>
#include <vector>

#include "bench/load/adapter.h"
#include "bench/load/cpu_clock.h"
#include "bench/load/event_set.h"
#include "bench/load/options.h"
#include "bench/load/pace.h"
#include "bench/load/receiver.h"
#include "bench/load/repetition.h"
#include "bench/load/source.h"

namespace Load {

class TcpCell {
  public:
    /// The daemon runs already, and is known to the adapter.
    TcpCell(const Options& cellOptions, Adapter& rAdapterOfDaemon, pid_t nPidOfDaemon);

    /// Connects everybody, waits until messages reach all receivers, and measures. Prints the
    /// results to standard output.
    void run();

  private:
    void connectGroups();
    void connectIdle();
    void addReceiver(int nGroup);
    [[nodiscard]] Connection connectNext();

    /// Sends from every source until all its receivers have heard the same message.
    void warmUp();
    void keepAlive();
    void prepareRepetition();
    [[nodiscard]] Repetition runOnce();
    void sendModerately(Repetition& rRepetition);
    void sendFlatOut();
    void sendFrom(std::size_t nGroup, std::int64_t nStartNs);
    void finishSending();
    [[nodiscard]] bool bAwaitDeliveries(std::int64_t nPatienceNs);
    [[nodiscard]] bool bAllDelivered() const;

    /// Waits for events, at most so long, and handles them.
    void handleEvents(int nTimeoutMs);
    void handleReceiver(std::size_t nIndex);
    void serviceIfDue();

    const Options& options;
    Adapter& rAdapter;
    pid_t nPid;
    CpuClock cpuClock;
    EventSet events;
    PaceTimer timer;
    std::string sPayload;
    std::vector<std::unique_ptr<FrameCheck>> checks;
    std::vector<Source> sources;
    std::vector<Receiver> receivers;
    std::vector<Connection> idle;
    std::vector<std::size_t> ready;    ///< groups whose source may be able to send again
    std::vector<std::size_t> limited;  ///< groups whose source is ahead of its limit
    Findings findings;
    int nConnections = 0;
    std::int64_t nLastServiceNs = 0;
    std::int64_t nLastKeepAliveNs = 0;
};

}  // namespace Load
