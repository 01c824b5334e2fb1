#include "relayserver/orders/routing_update.h"

#include "connserver/logging.h"
#include "genner/output/LostConnectionNetMessage.h"
#include "genner/output/message_types.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/routes/route_store.h"

using Orvex::RoutingUpdateNetMessage;

namespace {

/// The absent destination last reported to the connection server: only consecutive repeats are not
/// reported again.
unsigned lastClientBadRoutingUpdate = 0;

void reConfirmAbsence(unsigned nToID) {
    const bool bRepeated = nToID == lastClientBadRoutingUpdate;
    lastClientBadRoutingUpdate = nToID;
    if (!bRepeated) {
        writeToLog(true,
                   "Got a routing insert request for client ID %u, but it's not currently one "
                   "connected to this relay. Re-confirming that to conn server\n",
                   nToID);
        Orvex::LostConnectionNetMessage lcnm(static_cast<int>(nToID));
        ForwardToCS(lcnm);
    }
}

void onConnect(unsigned nFromID, unsigned nToID, int nMsgClass) {
    insertRoute(nFromID, nToID, nMsgClass);
    Orvex::RelayClient* pClient = nullptr;
    if (!ctAuthClientTable.bLookUp(static_cast<int>(nToID), &pClient)) {
        reConfirmAbsence(nToID);
    }
}

}  // namespace

void UpdateDB(const RoutingUpdateNetMessage& runmRoutingUpdate) {
    const unsigned nFromID = runmRoutingUpdate.GetFromID();
    const unsigned nToID = runmRoutingUpdate.GetToID();
    const int nMsgClass = runmRoutingUpdate.GetMsgClass();
    if (runmRoutingUpdate.GetRequestCode() == rcConnect) {
        onConnect(nFromID, nToID, nMsgClass);
    } else if (runmRoutingUpdate.GetRequestCode() == rcDisconnect) {
        deleteRoute(nFromID, nToID, nMsgClass);
    }
    // Only this one key, whatever the order was: routes of other sources stay cached until an order
    // names them, as the connection server expects.
    forgetRoute(nFromID, nMsgClass);
}

void resetRoutingUpdateForTest() {
    lastClientBadRoutingUpdate = 0;
}
