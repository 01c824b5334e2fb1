/// Speaks to the bare UDP floors: receivers announce themselves, sources need not, and there are no
/// idle clients.
#pragma once

#include "bench/load/options.h"
#include "bench/load/udp_adapter.h"

namespace Load {

class FloorUdpAdapter : public UdpAdapter {
  public:
    explicit FloorUdpAdapter(const Options& options);

    void becomeSource(int /*nProgram*/, const UdpSocket& /*socket*/) override {}
    void becomeReceiver(int nProgram, const std::vector<UdpSocket>& row) override;
    void connectIdle(int /*nCount*/) override {}
    [[nodiscard]] std::uint32_t nSourceId(int nProgram) const override;
    [[nodiscard]] std::vector<UdpTarget> targetsOf(int nProgram, int nChannel) const override;

  private:
    [[nodiscard]] sockaddr_in siOf(int nProgram, int nChannel) const;

    std::string sAddress;
    std::uint16_t nBasePort;
};

}  // namespace Load
