#include "relayserver/orders/link_events.h"

#include <openssl/err.h>

#include <sstream>

#include "connserver/logging.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/orders/connect_to_server.h"
#include "relayserver/orders/link_messages.h"
#include "relayserver/settings/servers.h"
#include "relayserver/sockets/ssl_contexts.h"

namespace {

void reportBreak() {
    writeToLog(true, "WARNING: broken socket to connserver : %s\n",
               msConnServMsgSock.getErrorString().c_str());
    ERR_print_errors_cb(sslErrorCallback, nullptr);
    writeToLog(true, "Last message forwarded to CS before break: \n");
    std::ostringstream osDump;
    nmLastSentToCS.Print(osDump, 0, false);
    writeToLog(false, "%s\n", osDump.str().c_str());
}

/// Reads from a finished link whose socket is readable.
void readFinishedLink() {
    const bool bBroken = msConnServMsgSock.nReadNonBlockingSocket() < 0;
    if (bBroken) {
        reportBreak();
    }
    // Messages that arrived complete before the link broke are still handled.
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

void settleBrokenLink() {
    if (!bLinkMarkedBroken()) {
        return;
    }
    writeToLog(true, "cleaning up socket fd %d\n", connserv_sockfd);
    writeToLog(true, "cleanbadsocket was on connection server\n");
    readLastServerMessages();
    if (!bLinkMarkedBroken()) {
        return;  // one of those messages ended the link
    }
    LostConnectionToCS();
    SwitchServers();
    reconnectUnlessThrottled();
}
