#include "relayserver/cslink/client_report.h"

#include <algorithm>
#include <stdexcept>

#include "connserver/logging.h"
#include "genner/output/ConnectConfirmNetMessage.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/routes/route_store.h"

using Orvex::RelayClient;
using Orvex::RelayClientTable;

namespace {

/// Deletes every client of `table` and returns how many there were.
int nDropAll(RelayClientTable& table, LeaveReason reason, const char* sOutOfRange) {
    int nDropped = 0;
    try {
        RelayClientTable::Walk walk(table);
        if (walk.bBeginTraverse()) {
            do {
                DeleteClient(table, walk.current(), reason);
                ++nDropped;
            } while (walk.bContinueTraverse());
        }
    } catch (const std::out_of_range&) {
        writeToLog(true, "%s", sOutOfRange);
    }
    return nDropped;
}

[[nodiscard]] bool bReconnected(const Orvex::LostConnectionNetMessage& lcnm) {
    RelayClient* pClient = nullptr;
    return ctAuthClientTable.bLookUp(lcnm.GetClientID(), &pClient);
}

}  // namespace

int IdentifyClients() {
    if (ctAuthClientTable.GetSize() != 0) {
        writeToLog(true, "identifying all %u currently connected clients to connserver\n",
                   static_cast<unsigned>(ctAuthClientTable.GetSize()));
    }
    try {
        RelayClientTable::Walk walk(ctAuthClientTable);
        if (walk.bBeginTraverse()) {
            do {
                Orvex::ConnectConfirmNetMessage ccnm(walk.current().GetClientID());
                if (ccnm.Send(true, msConnServMsgSock) <= 0) {
                    writeToLog(true,
                               "didn't get through client list. ending identification loop\n");
                    return -1;
                }
            } while (walk.bContinueTraverse());
        }
    } catch (const std::out_of_range&) {
        writeToLog(true, "WARNING - stepped out of range in identify clients!\n");
    }
    return 0;
}

int IdentifyLosses() {
    writeToLog(true,
               "Sending list of clients that have disconnected from this relay while it was out of "
               "touch with connection server - list may be up to %zu clients long\n",
               vRecentlyLost.size());
    const auto itStopped =
        std::find_if(vRecentlyLost.begin(), vRecentlyLost.end(), [](const auto& pLost) {
            return !bReconnected(*pLost) && pLost->Send(true, msConnServMsgSock) <= 0;
        });
    if (itStopped != vRecentlyLost.end()) {
        writeToLog(true,
                   "didn't get through client list. ending loss identification loop after "
                   "reporting/checking %u entries\n",
                   static_cast<unsigned>(itStopped - vRecentlyLost.begin()));
    }
    forgetOldestLosses(static_cast<std::size_t>(itStopped - vRecentlyLost.begin()));
    return vRecentlyLost.empty() ? 0 : -1;
}

void MopupCS(LeaveReason reason) {
    writeToLog(true, "Mopping up CS! Client connections being cancelled\n");
    int nDropped =
        nDropAll(ctAuthClientTable, reason, "auth client table out of bounds in mopup!\n");
    nDropped +=
        nDropAll(ctLooseClientTable, reason, "loose client table out of bounds in mopup!\n");
    DBCleanup();
    writeToLog(true, "Cancelled %d client connections\n", nDropped);
}
