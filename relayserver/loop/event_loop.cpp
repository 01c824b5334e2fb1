#include "relayserver/loop/event_loop.h"

#include <sys/ioctl.h>

#include <cerrno>

#include "base/get_strerror.h"
#include "connserver/logging.h"
#include "connserver/signal_handling.h"
#include "relayserver/admission/loose_client.h"
#include "relayserver/admission/plain_accept.h"
#include "relayserver/admission/tls_accept.h"
#include "relayserver/admission/tls_handshake.h"
#include "relayserver/archive/archive_pass.h"
#include "relayserver/audio/udp_receive.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/client_loss.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/loop/housekeeping.h"
#include "relayserver/orders/link_events.h"
#include "relayserver/orders/link_messages.h"
#include "relayserver/peers/pending_connects.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "relayserver/switching/client_messages.h"

using Orvex::RelayClient;

namespace {

constexpr int kWaitMillis = 500;

/// Returns whether the descriptor of the event belongs to the handler; if so, the event has been
/// handled. `nIndex` is the number of the event in this pass.
using handler_t = bool (*)(epoll_event& epe, int nIndex);

/// Whether a connection has input that has not been handled yet.
[[nodiscard]] bool bInputPending(Orvex::RelayMessageSocket& rSocket) {
    int nBytes = 0;
    return rSocket.bHasMoreInput() ||
           (ioctl(rSocket.getMsgSockFileDesc(), FIONREAD, &nBytes) == 0 && nBytes > 0);
}

/// Whether a client has unread input, which must be handled before its connection is cleaned up: a
/// peer that closes with our heartbeats unread resets the connection, although it may have logged
/// out properly.
[[nodiscard]] bool bHasUnreadInput(int fd) {
    RelayClient* pClient = nullptr;
    return (ctAuthClientTable.bFileDescLookUp(fd, &pClient) ||
            ctLooseClientTable.bFileDescLookUp(fd, &pClient)) &&
           bInputPending(*pClient->GetMessageSocket());
}

[[nodiscard]] bool bHandleBadSocket(epoll_event& epe, int nIndex) {
    const int fd = nDescriptorOf(epe);
    if ((epe.events & (EPOLLERR | EPOLLHUP)) == 0 || bHasUnreadInput(fd) ||
        bClearAudioSocketError(fd)) {
        return false;
    }
    if (fd == connserv_sockfd) {
        markLinkBroken();
        readLastServerMessages();
    }
    writeToLog(true,
               "socket %u will be closed, epoll error status 0x%x, event num %u processed in this "
               "loop\n",
               static_cast<unsigned>(fd), epe.events, static_cast<unsigned>(nIndex));
    if (bIsCurrent(epe)) {
        CleanBadSocket(fd, LeaveReason::kErrorEvent);
    }
    return true;
}

[[nodiscard]] bool bHandleConnServer(epoll_event& epe, int /*nIndex*/) {
    if (connserv_sockfd == 0 || nDescriptorOf(epe) != connserv_sockfd) {
        return false;
    }
    onLinkEvent(epe);
    return true;
}

[[nodiscard]] bool bHandleAuthClient(epoll_event& epe, int /*nIndex*/) {
    RelayClient* pClient = nullptr;
    if (!ctAuthClientTable.bFileDescLookUp(nDescriptorOf(epe), &pClient)) {
        return false;
    }
    readAndSwitch(*pClient);
    return true;
}

[[nodiscard]] bool bHandleLooseClient(epoll_event& epe, int /*nIndex*/) {
    RelayClient* pClient = nullptr;
    if (!ctLooseClientTable.bFileDescLookUp(nDescriptorOf(epe), &pClient)) {
        return false;
    }
    stepLooseClient(*pClient);
    return true;
}

[[nodiscard]] bool bHandleHandshake(epoll_event& epe, int /*nIndex*/) {
    RelayClient* pClient = nullptr;
    if (!ctSslHandshakingTable.bFileDescLookUp(nDescriptorOf(epe), &pClient)) {
        return false;
    }
    stepTlsHandshake(*pClient);
    return true;
}

[[nodiscard]] bool bHandleTlsAccept(epoll_event& epe, int /*nIndex*/) {
    if (ssl_listen_sockfd == 0 || nDescriptorOf(epe) != ssl_listen_sockfd) {
        return false;
    }
    acceptTlsClient();
    return true;
}

[[nodiscard]] bool bHandlePlainAccept(epoll_event& epe, int /*nIndex*/) {
    if (nDescriptorOf(epe) != connect_listen_sockfd) {
        return false;
    }
    acceptWaitingPlainClients();
    return true;
}

// The order matters: errors are seen before any read, clients before listeners.
constexpr handler_t kHandlersInOrder[] = {
    bHandleBadSocket,      bHandleUdpAudio,   bHandleConnServer,
    bHandlePendingConnect, bHandleAuthClient, bHandleLooseClient,
    bHandleHandshake,      bHandleTlsAccept,  bHandlePlainAccept,
};

/// The number of ready descriptors; 0 if the wait failed, which is logged.
int waitForEvents() {
    const bool bWorkLeft = bTurnsWaiting() || bArchiveWaits();
    const int nReady = epoll_wait(ep_fd, ep_events, kMaxEpollEvents, bWorkLeft ? 0 : kWaitMillis);
    if (nReady == -1) {
        writeToLog(true, "epoll error - %s\n", get_strerror(errno).c_str());
        return 0;
    }
    return nReady;
}

/// Descriptors whose input was read from the kernel in an earlier pass.
void offerWaitingTurns(int nFirstIndex) {
    epoll_event epe{};
    for (int nIndex = nFirstIndex; bNextTurn(epe); ++nIndex) {
        offerToHandlers(epe, nIndex);
    }
}

}  // namespace

void offerToHandlers(epoll_event& epe, int nIndex) {
    if (!bIsCurrent(epe)) {
        return;
    }
    for (const handler_t bHandles : kHandlersInOrder) {
        if (bHandles(epe, nIndex)) {
            break;
        }
    }
    if (bLinkMarkedBroken()) {
        settleBrokenLink();
    }
}

void runOnePass() {
    headOfPass();
    const int nReady = waitForEvents();
    noteLoad(nReady);
    beginTurns();
    for (int i = 0; i < nReady; ++i) {
        offerToHandlers(ep_events[i], i);
    }
    offerWaitingTurns(nReady);
    tailOfPass();
}

void runEventLoop() {
    settleBrokenLink();  // an order that came with the log-in may have found it broken
    while (exitRequested == 0) {
        runOnePass();
    }
}
