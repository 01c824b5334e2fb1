#include "relayserver/clients/client_removal.h"

#include <openssl/ssl.h>

#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "genner/output/LostConnectionNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/clients/video_gate.h"
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

void DeleteClient(RelayClientTable& table, RelayClient& client) {
    sockaddr_in siAddress{};
    client.GetAddress(siAddress);
    writeToLog(true, "Removing client table entry for address %s(%d).\n",
               sDottedAddress(siAddress).c_str(), nPortOf(siAddress));
    if (client.GetClientID() > 0) {
        videoPermissions.ClearID(client.GetClientID());
    }
    const int fd = client.GetMessageSocket()->getMsgSockFileDesc();
    SSL* const pSSL = client.GetMessageSocket()->getSSLPtr();
    (void)table.bDelete(client);  // it is in this table: that is the caller's part
    SSL_free(pSSL);
    closeDescriptor(fd);
}

void reportLostClient(unsigned nClientID) {
    Orvex::LostConnectionNetMessage lcnm(static_cast<int>(nClientID));
    ForwardToCS(lcnm);
    AddToRecentlyLost(&lcnm);
}

void reportAndDelete(RelayClientTable& table, RelayClient& client) {
    reportLostClient(static_cast<unsigned>(client.GetClientID()));
    DeleteClient(table, client);
}

void CleanBadSocket(int fd) {
    if (connserv_sockfd != 0 && fd == connserv_sockfd) {
        markLinkBroken();
        return;
    }
    writeToLog(true, "cleaning up socket fd %d\n", fd);
    RelayClient* pClientFound = nullptr;
    RelayClientTable* const pTableFound = findTableOf(fd, pClientFound);
    if (pTableFound == nullptr) {
        writeToLog(true, "WARNING: could not identify client - closing fd anyway\n");
        // Were it a pending connect, a newcomer on the same descriptor would take its place.
        (void)ctOutboundConnectsPending.bDelete(fd);
        closeDescriptor(fd);
        return;
    }
    if (pClientFound->GetClientID() == 0) {
        DeleteClient(*pTableFound, *pClientFound);
        return;
    }
    writeToLog(true, "removing socket for client %u, and notifying CS\n",
               static_cast<unsigned>(pClientFound->GetClientID()));
    reportAndDelete(*pTableFound, *pClientFound);
}
