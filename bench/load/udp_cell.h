/// One cell of the UDP table: sources of audio programs and their receivers, measured a few times.
#pragma once

#include <sys/types.h>

#include <deque>
#include <vector>

#include "bench/load/cpu_clock.h"
#include "bench/load/event_set.h"
#include "bench/load/frame_check.h"
#include "bench/load/options.h"
#include "bench/load/pace.h"
#include "bench/load/repetition.h"
#include "bench/load/udp_adapter.h"
#include "bench/load/udp_receiver.h"
#include "bench/load/udp_source.h"

namespace Load {

class UdpCell {
  public:
    /// The daemon is already running, and known to the adapter. Options and adapter must outlive
    /// the cell.
    UdpCell(const Options& cellOptions, UdpAdapter& rAdapterOfDaemon, pid_t nPidOfDaemon);

    /// Introduces all clients, waits until datagrams reach all receivers, and measures. Prints the
    /// results to standard output.
    void run();

  private:
    void connectProgram(int nProgram);
    void connectReceiver(int nProgram, const FrameCheck& check);
    void addStreams(int nProgram, const Frame& datagram, int fdSource);

    /// Sends from every source until all receivers have received the same message.
    void warmUp();
    void prepareRepetition();
    [[nodiscard]] Repetition runOnce();
    void sendModerately(Repetition& rRepetition);
    void sendFlatOut();
    [[nodiscard]] std::int64_t nMessagesSent() const;
    [[nodiscard]] std::int64_t nBytesSent() const;

    [[nodiscard]] bool bAllDelivered() const;
    /// Waits as long as datagrams keep arriving; what is missing then is lost.
    void awaitDeliveries();
    /// Counts everything in flight as lost, so that the sources may continue.
    void countInFlightAsLost();

    /// Waits for events, at most this long, and handles them; false when there were none.
    bool bHandleEvents(int nTimeoutMs);
    void handleReceiver(std::size_t nIndex);

    const Options& options;
    UdpAdapter& rAdapter;
    pid_t nPid;
    CpuClock cpuClock;
    int nChannels;
    EventSet events;
    PaceTimer timer;
    // Deques, so that pointers to their elements stay valid.
    std::deque<UdpSocket> sourceSockets;  ///< one for each program
    std::deque<FrameCheck> checks;        ///< one for each program
    std::deque<UdpSource> streams;        ///< one for each program and channel
    std::vector<UdpReceiver> receivers;
    std::vector<std::size_t> ready;  ///< streams that may be able to send again
    int nClients = 0;
    Findings findings;
};

}  // namespace Load
