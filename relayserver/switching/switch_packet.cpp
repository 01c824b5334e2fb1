#include "relayserver/switching/switch_packet.h"

#include <cerrno>

#include "connserver/logging.h"
#include "genner/output/RoutingUpdateNetMessage.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/route_store.h"
#include "relayserver/switching/pipe_type.h"
#include "relayserver/switching/video_gate.h"

using Orvex::NetMessage;
using Orvex::RelayClient;

int nPacketsSwitched = 0;

namespace {

constexpr int kDirectDeliveryFlag = 1;
constexpr int kPacketsPerReport = 200000;

/// One message on its way to its routed destinations: what is the same for all of them.
struct RoutedMessage {
    NetMessage& nmMessage;
    unsigned nSource;
    int nPipe;
    bool bFromRelayPeer;
    bool bVideo;
    int nPage;
};

unsigned char nTypeByteOf(NetMessage& nmMessage) {
    return static_cast<unsigned char>(nmMessage.frame()[1]);
}

/// Sends to the destination in the header; one that is not here is no failure.
bool bDeliverDirect(NetMessage& nmMessage) {
    unsigned nDestination = 0;
    nmMessage.GetDestID(nDestination);
    RelayClient* pDestination = nullptr;
    if (!ctAuthClientTable.bLookUp(static_cast<int>(nDestination), &pDestination)) {
        return true;
    }
    const int nSent = nmMessage.Send(true, *pDestination->GetMessageSocket());
    if (nSent >= 1) {
        return true;
    }
    const int nProblem = errno;
    const int fd = pDestination->GetMessageSocket()->getMsgSockFileDesc();
    writeToLog(true,
               "TCP message down send failed in SwitchPacket with returncode %d, errno=%u, send to "
               "socket %u\n",
               nSent, static_cast<unsigned>(nProblem), static_cast<unsigned>(fd));
    CleanBadSocket(fd);
    return false;
}

/// Two relays that route to each other would pass a message round for ever: the route goes instead.
void dissolveLoop(const RoutedMessage& routed, unsigned nDestination) {
    writeToLog(true,
               "WARNING: suppressing possible relay loop to relay peer %u, originating client %u. "
               "Likely there are old links in our system, will try to clean up locally.\n",
               nDestination, routed.nSource);
    UpdateDB(Orvex::RoutingUpdateNetMessage(Orvex::RequestCode(1), routed.nSource, nDestination,
                                            routed.nPipe));
}

/// Whether the video rules let the message pass; other messages always do.
bool bVideoRulesPass(const RoutedMessage& routed, RelayClient& destination) {
    if (!routed.bVideo) {
        return true;
    }
    if (!bVideoPermitted(routed.nSource, destination)) {
        return false;
    }
    return bIsRelayPeer(destination) || bVideoPageFits(routed.nPage, destination);
}

void countPacket(const RoutedMessage& routed, unsigned nDestination) {
    nPacketsSwitched = static_cast<int>(static_cast<unsigned>(nPacketsSwitched) + 1U);
    if (nPacketsSwitched % kPacketsPerReport == 0) {
        writeToLog(true, "%u tcp packets switched and sent, this packet switched from %u to %u\n",
                   static_cast<unsigned>(nPacketsSwitched), routed.nSource, nDestination);
    }
}

void dropDestination(NetMessage& nmMessage, int nSent, RelayClient& destination) {
    writeToLog(true, "TCP message send failed in SwitchPacket - rc=%d, errno=%u\n", nSent,
               static_cast<unsigned>(errno));
    const std::string_view svFrame = nmMessage.frame();
    printchars(svFrame.data(), static_cast<int>(svFrame.size()));
    CleanBadSocket(destination.GetMessageSocket()->getMsgSockFileDesc());
}

/// One destination of the route; false when the send failed and the destination is gone.
bool bDeliverTo(const RoutedMessage& routed, unsigned nDestination) {
    RelayClient* pDestination = nullptr;
    if (!ctAuthClientTable.bLookUp(static_cast<int>(nDestination), &pDestination)) {
        return true;
    }
    if (routed.bFromRelayPeer && bIsRelayPeer(*pDestination)) {
        dissolveLoop(routed, nDestination);
        return true;
    }
    if (!bVideoRulesPass(routed, *pDestination)) {
        return true;
    }
    const int nSent = routed.nmMessage.Send(true, *pDestination->GetMessageSocket());
    if (nSent > 0) {
        countPacket(routed, nDestination);
        return true;
    }
    dropDestination(routed.nmMessage, nSent, *pDestination);
    return false;
}

bool bDeliverRouted(const RoutedMessage& routed) {
    // Held while it is walked: a loop that is dissolved on the way removes it from the cache.
    const std::shared_ptr<const Tessel_Routing::RouteEntry> pRoute =
        findRoute(routed.nSource, routed.nPipe);
    bool bSuccess = true;
    for (const unsigned nDestination : pRoute->clientsTo()) {
        bSuccess = bDeliverTo(routed, nDestination) && bSuccess;
    }
    return bSuccess;
}

}  // namespace

bool SwitchPacket(NetMessage* nmpMsg, int nFlags, bool bFromRelayPeer) {
    if (nmpMsg->frame().empty()) {
        return true;
    }
    const unsigned char nTypeByte = nTypeByteOf(*nmpMsg);
    const int nPipe = nPipeType(nTypeByte);
    if (nPipe == kPipeNone) {
        return true;
    }
    if (nFlags == 0 && nPipe == kPipeConnServer) {
        ForwardToCS(*nmpMsg);
        return true;
    }
    if ((nFlags == 0 && nPipe == kPipeDirect) || (nFlags & kDirectDeliveryFlag) != 0) {
        return bDeliverDirect(*nmpMsg);
    }
    unsigned nSource = 0;
    nmpMsg->GetSenderID(nSource);
    const bool bVideo = nTypeByte == kTypeVideoFeedback;
    return bDeliverRouted(
        {*nmpMsg, nSource, nPipe, bFromRelayPeer, bVideo, bVideo ? nVideoPage(*nmpMsg) : 0});
}

void resetPacketsSwitchedForTest(int nPackets) {
    nPacketsSwitched = nPackets;
}
