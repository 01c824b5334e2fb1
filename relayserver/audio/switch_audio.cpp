#include "relayserver/audio/switch_audio.h"

#include <netinet/in.h>

#include "connserver/logging.h"
#include "genner/output/RoutingUpdateNetMessage.h"
#include "relayserver/audio/fec_ports.h"
#include "relayserver/audio/send_batch.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/route_store.h"

using Orvex::RelayClient;

unsigned audio_packets_sent = 0;

namespace {

constexpr unsigned kPacketsPerReport = 200000;

/// Two relays that route to each other would pass a datagram round for ever: the route goes
/// instead.
void dissolveLoop(unsigned nSource, unsigned nDestination) {
    writeToLog(true,
               "WARNING: suppressing possible relay loop to relay peer %u, originating client %u. "
               "Likely there are old audio links in our system, will try to clean up locally.\n",
               nDestination, nSource);
    UpdateDB(Orvex::RoutingUpdateNetMessage(Orvex::RequestCode(1), nSource, nDestination,
                                            kAudioMsgClass));
}

/// Where a client hears a channel of a program. The port is 0 when it does not, or when nobody
/// knows where yet: a peer may be marked before it has registered. A relay that an order has named
/// listens for FEC on its FEC sockets; a station that has registered one address hears it there and
/// on the two ports next to it.
sockaddr_in siReceiverOf(const RelayClient& client, unsigned nProgram, int nFecChannel) {
    sockaddr_in siTo{};
    if (client.bIsRcvAudio(nProgram)) {
        client.GetAudioRcvAddress(nProgram, siTo);
    }
    if (siTo.sin_port != 0) {
        const int nPerChannel =
            client.nRelayUdpBasePort != 0 ? kFecSocketPortOffset : kFecCopyPortOffset;
        siTo.sin_port =
            htons(static_cast<std::uint16_t>(ntohs(siTo.sin_port) + nPerChannel * nFecChannel));
    }
    return siTo;
}

void countSent(unsigned nSource, unsigned nDestination) {
    if (++audio_packets_sent % kPacketsPerReport == 0) {
        writeToLog(true, "Sent %u audio packets, this packet switched from %u to %u\n",
                   audio_packets_sent, nSource, nDestination);
    }
}

}  // namespace

void SwitchAudioPacket(unsigned nSource, int fdSend, const char* achDatagram, int nLength,
                       bool bFromRelayPeer, int nFecChannel, int nProgram) {
    const auto nIndex = static_cast<unsigned>(nProgram);
    // Held while it is walked: a loop that is dissolved on the way removes it from the cache.
    const auto pRoute = findRoute(nSource, kAudioMsgClass, "AUDIO");
    for (const unsigned nDestination : pRoute->clientsTo()) {
        RelayClient* pClient = nullptr;
        if (!ctAuthClientTable.bLookUp(static_cast<int>(nDestination), &pClient)) {
            continue;
        }
        if (bFromRelayPeer && bIsRelayPeer(*pClient)) {
            dissolveLoop(nSource, nDestination);
            continue;
        }
        const sockaddr_in siTo = siReceiverOf(*pClient, nIndex, nFecChannel);
        if (siTo.sin_port != 0) {
            queueDatagram(fdSend, achDatagram, static_cast<size_t>(nLength), siTo);
            countSent(nSource, nDestination);
        }
    }
}

void resetSwitchAudioForTest(unsigned nSent) {
    audio_packets_sent = nSent;
}
