#include "bench/load/floor_udp_adapter.h"

#include "bench/floors/introduction.h"
#include "bench/load/udp_datagram.h"

namespace Load {

FloorUdpAdapter::FloorUdpAdapter(const Options& options)
    : sAddress(options.sAddress), nBasePort(options.nPort) {}

sockaddr_in FloorUdpAdapter::siOf(int nProgram, int nChannel) const {
    return siMakeAddress(sAddress, nAudioPort(nBasePort, nProgram, nChannel));
}

void FloorUdpAdapter::becomeReceiver(int nProgram, const std::vector<UdpSocket>& row) {
    const auto introduction =
        Floor::makeIntroduction(Floor::kReceiver, static_cast<std::uint32_t>(nProgram));
    const std::string_view svIntroduction(introduction.data(), introduction.size());
    int nChannel = 0;
    for (const UdpSocket& socket : row) {
        (void)socket.sExchange(
            siOf(nProgram, nChannel++), svIntroduction,
            [&](std::string_view svAnswer) { return svAnswer == svIntroduction; });
    }
}

std::uint32_t FloorUdpAdapter::nSourceId(int nProgram) const {
    return static_cast<std::uint32_t>(nProgram);
}

std::vector<UdpTarget> FloorUdpAdapter::targetsOf(int nProgram, int nChannel) const {
    return {{siOf(nProgram, nChannel), {}}};
}

}  // namespace Load
