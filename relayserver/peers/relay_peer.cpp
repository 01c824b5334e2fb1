#include "relayserver/peers/relay_peer.h"

#include "relayserver/startup/socket_options.h"

bool bIsRelayPeer(const Orvex::RelayClient& client) {
    return client.bIsRcvAudio(0) && client.bIsSrcAudio(0);
}

void MarkAsRelay(Orvex::RelayClient& client) {
    if (bIsRelayPeer(client)) {
        return;
    }
    sockaddr_in siNotYetKnown{};
    if (!client.bIsRcvAudio(0)) {
        client.StartRcvAudio(0, siNotYetKnown);
    }
    if (!client.bIsSrcAudio(0)) {
        client.StartSrcAudio(0, siNotYetKnown);
    }
    bIncreaseSockTxBuf(client.GetMessageSocket()->getMsgSockFileDesc(), kLinkTxBufBytes);
}
