#include "relayserver/orders/cs_messages.h"

#include <openssl/err.h>
#include <sys/ioctl.h>

#include <sstream>

#include "connserver/logging.h"
#include "genner/output/PremiumFeatureResponseNetMessage.h"
#include "genner/output/RoutingUpdateNetMessage.h"
#include "relayserver/clients/video_gate.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/cslink/login.h"
#include "relayserver/orders/connect_order.h"
#include "relayserver/orders/connect_to_server.h"
#include "relayserver/routes/route_store.h"
#include "relayserver/sockets/ssl_contexts.h"
#include "relayserver/switching/message_types.h"
#include "relayserver/switching/switch_packet.h"

namespace {

constexpr long kTypePremiumFeatureResponse = 106;
/// Deliver to the destination that the header names, whatever the routes say.
constexpr int kToHeaderDestination = 1;

void onVideoPermission(const char* achMsg, int nMsgLen) {
    const Orvex::PremiumFeatureResponseNetMessage pfrnm(achMsg, nMsgLen);
    const int nSource = pfrnm.GetTransmitID();
    const int nDestination = pfrnm.GetReceiveID();
    if (pfrnm.GetReturnCode() == Orvex::ReturnCode(0)) {
        writeToLog(true, "Video link permissions granted for %d to %d\n", nSource, nDestination);
        videoPermissions.Grant(nSource, nDestination);
    } else {
        writeToLog(true, "Video link permissions denied for %d to %d\n", nSource, nDestination);
        videoPermissions.Deny(nSource, nDestination);
    }
}

void onLogOut() {
    writeToLog(true, "logged out by connserver\n");
    LostConnectionToCS();
}

/// For this relay's clients: the connection server reaches them only through us.
void passToClient(const char* achMsg, int nMsgLen) {
    Orvex::NetMessage nmMessage(achMsg, nMsgLen);
    (void)SwitchPacket(&nmMessage, kToHeaderDestination, false);  // a failed client is gone already
}

void reportBreak() {
    writeToLog(true, "WARNING: broken socket to connserver : %s\n",
               msConnServMsgSock.getErrorString().c_str());
    ERR_print_errors_cb(sslErrorCallback, nullptr);
    writeToLog(true, "Last message forwarded to CS before break: \n");
    std::ostringstream osDump;
    nmLastSentToCS.Print(osDump, 0, false);
    writeToLog(false, "%s\n", osDump.str().c_str());
}

/// The link is finished and its socket is readable.
void readFinishedLink() {
    const bool bBroken = msConnServMsgSock.nReadNonBlockingSocket() < 0;
    if (bBroken) {
        reportBreak();
    }
    // What arrived whole before the link broke still counts.
    if (handleLinkMessages() >= 0 && bBroken) {
        LostConnectionToCS();
    }
}

void advanceUnfinishedLink(epoll_event& epe) {
    const bool bConnecting =
        nConnectionStage == WAITING_FOR_CONNECT && (epe.events & EPOLLOUT) != 0;
    if (ConnectToServer(false, &epe) >= 0) {
        return;
    }
    writeToLog(true, bConnecting ? "failure in connecttoserver connect pending, disconnecting\n"
                                 : "failure in connecttoserver, disconnecting\n");
    reconnectUnlessThrottled();
}

}  // namespace

void onLinkEvent(epoll_event& epe) {
    if (nConnectionStage != CONNECTION_FINISHED) {
        advanceUnfinishedLink(epe);
    } else if ((epe.events & EPOLLIN) != 0) {
        readFinishedLink();
    }
    if (bLinkFinished() && !csForwardQueue.empty()) {
        SendCSQueue();
    }
}

void readLastServerMessages() {
    if (nConnectionStage < WAITING_FOR_CHALLENGE) {
        return;
    }
    // A server that goes on sending does not keep us here: only what has come by now counts, and
    // what the TLS session may hold of it.
    constexpr int kTlsRecordBytes = 16384;
    int nWaiting = 0;
    ioctl(connserv_sockfd, FIONREAD, &nWaiting);
    nWaiting += kTlsRecordBytes;
    int nStage = handleLinkMessages();
    for (int nRead = 1; nRead > 0 && nWaiting > 0 && nStage >= 0; nWaiting -= nRead) {
        nRead = msConnServMsgSock.nReadNonBlockingSocket();
        nStage = handleLinkMessages();
    }
}

void settleBrokenLink() {
    if (!bLinkMarkedBroken()) {
        return;
    }
    writeToLog(true, "cleaning up socket fd %d\n", connserv_sockfd);
    writeToLog(true, "cleanbadsocket was on connection server\n");
    readLastServerMessages();
    if (!bLinkMarkedBroken()) {
        return;  // one of them has ended the link
    }
    LostConnectionToCS();
    SwitchServers();
    reconnectUnlessThrottled();
}

void onServerMessage(const char* achMsg, int nMsgLen) {
    if (static_cast<int>(GetNetMessageSenderID(achMsg, nMsgLen)) < 0) {
        writeToLog(true,
                   "Connserver message with invalid sender id string and len %u received, ignoring "
                   "message\n",
                   static_cast<unsigned>(nMsgLen));
        return;
    }
    const Orvex::NetMessageType nmtType(achMsg, nMsgLen);
    if (nmtType == nmtNetMsgTypeRoutingUpdate) {
        UpdateDB(Orvex::RoutingUpdateNetMessage(achMsg, nMsgLen));
    } else if (nmtType == nmtNetMsgTypeConnectOrder) {
        onConnectOrder(Orvex::ConnectOrderNetMessage(achMsg, nMsgLen));
    } else if (nmtType == kTypePremiumFeatureResponse) {
        onVideoPermission(achMsg, nMsgLen);
    } else if (nmtType == nmtNetMsgTypeLogOut) {
        onLogOut();
    } else if (nmtType == nmtNetMsgTypeChallenge) {
        (void)onChallenge(achMsg, nMsgLen);  // a failed login has taken the link down
    } else if (!(nmtType == nmtNetMsgTypeHeartbeat)) {
        passToClient(achMsg, nMsgLen);
    }
}
