/// Speaks to our relay's audio ports: every client is also logged in over TCP, and registers its
/// address with a ticket.
#pragma once

#include <array>

#include "bench/load/crowd.h"
#include "bench/load/options.h"
#include "bench/load/relay_adapter.h"
#include "bench/load/udp_adapter.h"
#include "bench/load/udp_datagram.h"

namespace Load {

class RelayUdpAdapter : public UdpAdapter {
  public:
    /// The options must outlive the adapter.
    explicit RelayUdpAdapter(const Options& cellOptions);

    void prepare() override { relay.prepare(); }
    void awaitDaemon() override { relay.awaitDaemon(); }
    void becomeSource(int nProgram, const UdpSocket& socket) override;
    void becomeReceiver(int nProgram, const std::vector<UdpSocket>& row) override;
    void connectIdle(int nCount) override;
    [[nodiscard]] std::uint32_t nSourceId(int nProgram) const override;
    [[nodiscard]] std::vector<UdpTarget> targetsOf(int nProgram, int nChannel) const override;
    void keepAliveIfDue() override { clients.keepAliveIfDue(); }
    [[nodiscard]] int fdToService() const override { return relay.fdToService(); }
    void service() override { relay.service(); }

  private:
    static constexpr std::size_t kPrograms = 6;

    /// Logs a client in over TCP, registers its UDP address, and returns its id.
    unsigned registerClient(int nProgram, const UdpSocket& socket, AudioRole role);

    const Options& options;
    RelayAdapter relay;
    Crowd clients;  ///< the TCP connections of all clients, idle or not
    std::array<unsigned, kPrograms> anSourceIds{};
};

}  // namespace Load
