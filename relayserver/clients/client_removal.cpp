#include "relayserver/clients/client_removal.h"

#include <openssl/ssl.h>

#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "relayserver/clients/video_gate.h"
#include "relayserver/sockets/epoll_set.h"

using Orvex::RelayClient;
using Orvex::RelayClientTable;

void DeleteClient(RelayClientTable& table, RelayClient& client, LeaveReason reason) {
    noteDeparture(reason);
    sockaddr_in siAddress{};
    client.GetAddress(siAddress);
    writeToLog(true, "Removing client table entry for address %s(%d).\n",
               sDottedAddress(siAddress).c_str(), nPortOf(siAddress));
    if (client.GetClientID() > 0) {
        videoPermissions.ClearID(client.GetClientID());
    }
    const int fd = client.GetMessageSocket()->getMsgSockFileDesc();
    SSL* const pSSL = client.GetMessageSocket()->getSSLPtr();
    (void)table.bDelete(client);  // the caller guarantees that it is in this table
    SSL_free(pSSL);
    closeDescriptor(fd);
}
