#include "relayserver/orders/cs_messages.h"

#include "connserver/logging.h"
#include "genner/output/PremiumFeatureResponseNetMessage.h"
#include "genner/output/RoutingUpdateNetMessage.h"
#include "genner/output/message_types.h"
#include "relayserver/clients/video_gate.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/cslink/login.h"
#include "relayserver/orders/connect_order.h"
#include "relayserver/orders/routing_update.h"
#include "relayserver/switching/switch_packet.h"

namespace {

/// Deliver to the destination named in the header, whatever the routes say.
constexpr int kToHeaderDestination = 1;

void onVideoPermission(const char* achMsg, int nMsgLen) {
    const Orvex::PremiumFeatureResponseNetMessage pfrnm(achMsg, nMsgLen);
    const int nSource = pfrnm.GetTransmitID();
    const int nDestination = pfrnm.GetReceiveID();
    if (pfrnm.GetReturnCode() == rcOK) {
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

/// For one of our clients, which the connection server can reach only through this relay.
void passToClient(const char* achMsg, int nMsgLen) {
    Orvex::NetMessage nmMessage(achMsg, nMsgLen);
    (void)SwitchPacket(&nmMessage, kToHeaderDestination, false);  // a client that failed is removed
}

}  // namespace

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
    } else if (nmtType == Orvex::PremiumFeatureResponseNetMessage::nTYPE) {
        onVideoPermission(achMsg, nMsgLen);
    } else if (nmtType == nmtNetMsgTypeLogOut) {
        onLogOut();
    } else if (nmtType == nmtNetMsgTypeChallenge) {
        (void)onChallenge(achMsg, nMsgLen);  // a failed login has taken the link down
    } else if (!(nmtType == nmtNetMsgTypeHeartbeat)) {
        passToClient(achMsg, nMsgLen);
    }
}
