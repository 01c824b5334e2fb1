#include "relayserver/peers/relay_peer.h"

#include "relayserver/clients/peer_mark.h"
#include "relayserver/peers/peer_sources.h"
#include "relayserver/sockets/socket_options.h"

using Orvex::RelayClient;

void MarkAsRelay(RelayClient& client) {
    if (bIsRelayPeer(client)) {
        return;
    }
    const sockaddr_in siAudio = siPeerAudioAddress(client, 0);
    if (!client.bIsRcvAudio(0)) {
        client.StartRcvAudio(0, siAudio);
    }
    if (!client.bIsSrcAudio(0)) {
        client.StartSrcAudio(0, siAudio);
    }
    notePeerSources(client);
    bIncreaseSockTxBuf(client.GetMessageSocket()->getMsgSockFileDesc(), kLinkTxBufBytes);
}

sockaddr_in siPeerAudioAddress(const RelayClient& client, unsigned nProgram) {
    constexpr unsigned kPortsPerProgram = 2;
    sockaddr_in siPeer{};
    client.GetAddress(siPeer);
    const unsigned nPort = ntohs(client.nRelayUdpBasePort) + kPortsPerProgram * nProgram;
    siPeer.sin_port = htons(static_cast<std::uint16_t>(nPort));
    return siPeer;
}

void setPeerUdpBasePort(RelayClient& client, int nUdpBasePort) {
    const auto nPort = static_cast<std::uint16_t>(nUdpBasePort);  // wraps, as sums of ports do
    if (nPort == 0) {
        return;
    }
    client.nRelayUdpBasePort = htons(nPort);
    for (unsigned nProgram = 0; nProgram < RelayClient::kAudioPrograms; ++nProgram) {
        if (client.bIsRcvAudio(nProgram)) {
            client.StartRcvAudio(nProgram, siPeerAudioAddress(client, nProgram));
        }
    }
}
