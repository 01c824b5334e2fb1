#include "bench/load/relay_udp_adapter.h"

namespace Load {

namespace {

/// The message class of audio in routes.
constexpr int kAudioClass = 64;

}  // namespace

RelayUdpAdapter::RelayUdpAdapter(const Options& cellOptions)
    : options(cellOptions), relay(cellOptions), clients(cellOptions, relay) {}

// The relay does not answer a registration that it accepts. Datagrams sent before it has arrived do
// not reach their receivers: they are repeated before anything is measured.
unsigned RelayUdpAdapter::registerClient(int nProgram, const UdpSocket& socket, AudioRole role) {
    const unsigned nId = clients.rConnectOneIdle().nId;
    socket.sendTo(siMakeAddress(options.sAddress, nAudioPort(options.nAudioPort, nProgram, 0)),
                  sMakeRegistration(relay.rServerOf().ticketFor(nId), role));
    return nId;
}

void RelayUdpAdapter::becomeSource(int nProgram, const UdpSocket& socket) {
    anSourceIds.at(static_cast<std::size_t>(nProgram)) =
        registerClient(nProgram, socket, AudioRole::kSend);
}

// A receiver gets error correction at the ports next to the one that it has registered.
void RelayUdpAdapter::becomeReceiver(int nProgram, const std::vector<UdpSocket>& row) {
    const unsigned nId = registerClient(nProgram, row.front(), AudioRole::kReceive);
    relay.rServerOf().addRoute(nSourceId(nProgram), nId, kAudioClass);
}

void RelayUdpAdapter::connectIdle(int nCount) {
    for (int i = 0; i < nCount; ++i) {
        (void)clients.rConnectOneIdle();
    }
}

std::uint32_t RelayUdpAdapter::nSourceId(int nProgram) const {
    return anSourceIds.at(static_cast<std::size_t>(nProgram));
}

std::vector<UdpTarget> RelayUdpAdapter::targetsOf(int nProgram, int nChannel) const {
    return {
        {siMakeAddress(options.sAddress, nAudioPort(options.nAudioPort, nProgram, nChannel)), {}}};
}

}  // namespace Load
