#include "relayserver/cslink/client_loss.h"

#include "connserver/logging.h"
#include "genner/output/LostConnectionNetMessage.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/sockets/epoll_set.h"

using Orvex::RelayClient;
using Orvex::RelayClientTable;

namespace {

/// The table that holds a client on `fd`, and that client; null when there is none.
RelayClientTable* findTableOf(int fd, RelayClient*& pClientFound) {
    for (RelayClientTable* pTable :
         {&ctAuthClientTable, &ctLooseClientTable, &ctSslHandshakingTable}) {
        if (pTable->bFileDescLookUp(fd, &pClientFound)) {
            return pTable;
        }
    }
    return nullptr;
}

}  // namespace

void reportLostClient(unsigned nClientID) {
    Orvex::LostConnectionNetMessage lcnm(static_cast<int>(nClientID));
    ForwardToCS(lcnm);
    AddToRecentlyLost(&lcnm);
}

void CleanBadSocket(int fd, LeaveReason reason) {
    if (connserv_sockfd != 0 && fd == connserv_sockfd) {
        markLinkBroken();
        return;
    }
    writeToLog(true, "cleaning up socket fd %d\n", fd);
    RelayClient* pClientFound = nullptr;
    RelayClientTable* const pTableFound = findTableOf(fd, pClientFound);
    if (pTableFound == nullptr) {
        writeToLog(true, "WARNING: could not identify client - closing fd anyway\n");
        // A pending connect must leave its table, or a new connection that gets the same descriptor
        // number would be taken for it.
        if (ctOutboundConnectsPending.bDelete(fd)) {
            noteDeparture(reason);
        }
        closeDescriptor(fd);
        return;
    }
    if (pClientFound->GetClientID() == 0) {
        DeleteClient(*pTableFound, *pClientFound, reason);
        return;
    }
    writeToLog(true, "removing socket for client %u, and notifying CS\n",
               static_cast<unsigned>(pClientFound->GetClientID()));
    reportLostClient(static_cast<unsigned>(pClientFound->GetClientID()));
    DeleteClient(*pTableFound, *pClientFound, reason);
}
