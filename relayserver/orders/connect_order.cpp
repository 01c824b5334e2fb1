#include "relayserver/orders/connect_order.h"

#include <string>

#include "connserver/logging.h"
#include "genner/output/message_types.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/peers/pending_connects.h"
#include "relayserver/peers/register_udp.h"
#include "relayserver/peers/relay_peer.h"

using Orvex::ConnectOrderNetMessage;
using Orvex::RelayClient;

namespace {

void onConnect(const ConnectOrderNetMessage& order) {
    writeToLog(true, "debug: requestcode was connect\n");
    const int nToID = order.GetConnectToID();
    if (static_cast<unsigned>(nToID) == nSenderID) {
        writeToLog(true,
                   "ERROR: ConnectOrder is telling relay %u to connect to itself - ignoring to "
                   "prevent self-connection loop\n",
                   nSenderID);
        return;
    }
    RelayClient* pExisting = nullptr;
    if (ctAuthClientTable.bLookUp(nToID, &pExisting)) {
        setPeerUdpBasePort(*pExisting, order.GetUdpPort());
        confirmExistingPeer(*pExisting);
        return;
    }
    startPeerConnect(order);
}

void onUdpRegistration(const ConnectOrderNetMessage& order) {
    RelayClient* pClient = nullptr;
    if (!ctAuthClientTable.bLookUp(order.GetConnectToID(), &pClient)) {
        return;
    }
    pClient->SetTicket(order.GetTicket().data(), static_cast<int>(order.GetTicket().size()));
    setPeerUdpBasePort(*pClient, order.GetUdpPort());
    MarkAsRelay(*pClient);
    RegisterUdp(*pClient, true, true, true, kAllPrograms);
}

}  // namespace

void onConnectOrder(const ConnectOrderNetMessage& order) {
    writeToLog(true, "got ticket for relay peer %d\n", order.GetConnectToID());
    if (order.GetRequestCode() == rcConnect) {
        onConnect(order);
    } else if (order.GetRequestCode() == rcUdpReg) {
        onUdpRegistration(order);
    } else {
        std::string sCode;
        order.GetRequestCode().ToString(sCode);
        writeToLog(true, "connect order net message had request code: %s\n", sCode.c_str());
    }
}
