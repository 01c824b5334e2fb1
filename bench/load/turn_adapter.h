/// Speaks to a TURN server over UDP, without credentials. Such a server forwards one to one: a
/// source is its client, the receivers are the client's peers, and the source sends every message
/// once per peer, each through a separate channel.
#pragma once

#include <array>

#include "bench/load/options.h"
#include "bench/load/udp_adapter.h"
#include "bench/load/udp_datagram.h"

namespace Load {

class TurnAdapter : public UdpAdapter {
  public:
    explicit TurnAdapter(const Options& options);

    void becomeSource(int nProgram, const UdpSocket& socket) override;
    void becomeReceiver(int nProgram, const std::vector<UdpSocket>& row) override;
    /// Clients that hold an allocation at the server and send nothing.
    void connectIdle(int nCount) override;
    [[nodiscard]] std::uint32_t nSourceId(int nProgram) const override;
    [[nodiscard]] std::vector<UdpTarget> targetsOf(int nProgram, int nChannel) const override;

  private:
    static constexpr std::size_t kPrograms = 6;

    struct Program {
        const UdpSocket* pSource = nullptr;
        std::uint16_t nNextChannel = 0;
        std::array<std::vector<UdpTarget>, kAudioChannels> targets;
    };

    /// Repeats a client's request until it is granted; ends the program if it is refused.
    void request(const UdpSocket& socket, const std::string& sRequest) const;

    int nClientNet;
    sockaddr_in siServer;
    std::size_t nDatagramLen;
    std::uint32_t nTransaction = 1;
    std::array<Program, kPrograms> programs;
    std::vector<UdpSocket> idle;
};

}  // namespace Load
