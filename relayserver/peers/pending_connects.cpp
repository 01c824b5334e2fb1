#include "relayserver/peers/pending_connects.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>

#include "base/clock.h"
#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "genner/output/ConnectConfirmNetMessage.h"
#include "genner/output/RelayConnectNetMessage.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/client_loss.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/settings/time_limits.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/socket_options.h"

using Orvex::ConnectOrderNetMessage;
using Orvex::RelayClient;

namespace {

sockaddr_in siAddressIn(const ConnectOrderNetMessage& order) {
    sockaddr_in siPeer{};
    siPeer.sin_family = AF_INET;
    siPeer.sin_addr.s_addr = order.GetRelayAddr();
    siPeer.sin_port = htons(static_cast<std::uint16_t>(order.GetTcpPort()));
    return siPeer;
}

/// Opens a socket and starts to connect it to the peer; -1, with the reason logged, on failure.
int nStartConnect(const ConnectOrderNetMessage& order, const sockaddr_in& siPeer) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        writeToLog(true, "new relay connection: socket create failure");
        return -1;
    }
    if (!bSetSocketInterface(fd) || !bSetLocalSourceAddress(fd)) {
        writeToLog(true, "WARNING: continuing with connection despite bind sock opt errors!\n");
    }
    writeToLog(true, "debug: connecting with relay peer %u on tcp port %d\n",
               static_cast<unsigned>(order.GetConnectToID()), order.GetTcpPort());
    makeNonBlocking(fd);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&siPeer), sizeof siPeer) == -1 &&
        errno != EINPROGRESS) {
        writeToLog(true, "could not start a connect to relay %s\n", sDottedAddress(siPeer).c_str());
        closeDescriptor(fd);
        return -1;
    }
    return fd;
}

void storeTicket(RelayClient& client, const ConnectOrderNetMessage& order) {
    client.SetTicket(order.GetTicket().data(), static_cast<int>(order.GetTicket().size()));
    setPeerUdpBasePort(client, order.GetUdpPort());
}

void addPending(int fd, const sockaddr_in& siPeer, const ConnectOrderNetMessage& order) {
    addToEpollForWrite(fd);
    (void)bDisableNagle(fd);  // the link works without it, with more delay
    RelayClient client{Orvex::RelayMessageSocket(fd, siPeer)};
    client.SetLastMessageTime(nowSecs());
    client.SetClientID(order.GetConnectToID());
    storeTicket(client, order);
    ctOutboundConnectsPending.Add(client);
    RemoveFromRecentlyLost(static_cast<unsigned>(order.GetConnectToID()));
}

[[nodiscard]] bool bSameAddress(const RelayClient& client, const sockaddr_in& siOther) {
    sockaddr_in siClient{};
    client.GetAddress(siClient);
    return siClient.sin_addr.s_addr == siOther.sin_addr.s_addr &&
           siClient.sin_port == siOther.sin_port;
}

/// Sends the log-in with the order's ticket; false if the send failed.
[[nodiscard]] bool bSendLogin(RelayClient& client) {
    unsigned char achTicket[RelayClient::nMAX_TICKET_LEN];
    int nTicketLen = 0;
    long lAge = 0;
    client.GetTicket(achTicket, nTicketLen, lAge);
    Orvex::RelayConnectNetMessage rcnm(nSenderID, achTicket, nTicketLen);
    return rcnm.Send(true, *client.GetMessageSocket()) > 0;
}

/// The peer may have connected to us in the meantime; that link is used then.
[[nodiscard]] bool bYieldToExistingLink(RelayClient& client) {
    RelayClient* pExisting = nullptr;
    if (!ctAuthClientTable.bLookUp(client.GetClientID(), &pExisting)) {
        return false;
    }
    setPeerUdpBasePort(*pExisting, ntohs(client.nRelayUdpBasePort));
    DeleteClient(ctOutboundConnectsPending, client, LeaveReason::kAlreadyConnected);
    confirmExistingPeer(*pExisting);
    return true;
}

void logIn(RelayClient& client, int fd) {
    if (!bSendLogin(client)) {
        CleanBadSocket(fd, LeaveReason::kSendFailed);
        return;
    }
    client.ttOwnLoginSent = nowSecs();
    ctAuthClientTable.Add(client);
    (void)ctOutboundConnectsPending.bDelete(fd);  // moved, not closed
}

void finishConnect(RelayClient& client, int fd) {
    sockaddr_in siPeer{};
    client.GetAddress(siPeer);
    writeToLog(true, "Non-blocking connection to relay %s successfully initiated\n",
               sDottedAddress(siPeer).c_str());
    removeFromEpoll(fd);
    addToEpollForRead(fd);
    client.SetLastMessageTime(nowSecs());
    if (!bYieldToExistingLink(client)) {
        logIn(client, fd);
    }
}

}  // namespace

void startPeerConnect(const ConnectOrderNetMessage& order) {
    const sockaddr_in siPeer = siAddressIn(order);
    RelayClient* pPending = nullptr;
    if (ctOutboundConnectsPending.bLookUp(order.GetConnectToID(), &pPending)) {
        if (bSameAddress(*pPending, siPeer)) {
            storeTicket(*pPending, order);
            RemoveFromRecentlyLost(static_cast<unsigned>(order.GetConnectToID()));
            return;
        }
        DeleteClient(ctOutboundConnectsPending, *pPending, LeaveReason::kConnectReplaced);
    }
    const int fd = nStartConnect(order, siPeer);
    if (fd != -1) {
        addPending(fd, siPeer, order);
    }
}

bool bHandlePendingConnect(epoll_event& epe, int /*nIndex*/) {
    RelayClient* pClient = nullptr;
    const int fd = nDescriptorOf(epe);
    if (!ctOutboundConnectsPending.bFileDescLookUp(fd, &pClient)) {
        return false;
    }
    finishConnect(*pClient, fd);
    return true;
}

void confirmExistingPeer(RelayClient& client) {
    const int nPeerID = client.GetClientID();
    MarkAsRelay(client);
    writeToLog(true, "WARNING: already connected to relay id %u, not initiating new connection\n",
               static_cast<unsigned>(nPeerID));
    Orvex::ConnectConfirmNetMessage ccnm(nPeerID);
    ForwardToCS(ccnm);
}

bool bOwnLoginTakesPrecedence(unsigned nPeerID) {
    RelayClient* pClient = nullptr;
    if (!ctAuthClientTable.bLookUp(static_cast<int>(nPeerID), &pClient)) {
        return false;
    }
    // Input from before the other relay received our log-in may still be on its way, even after its
    // response. A log-in long after ours is a new event.
    const double dSince = std::difftime(nowSecs(), pClient->ttOwnLoginSent);
    const bool bFresh = dSince >= 0 && dSince <= dPeerConnectTimeOut;  // 0 (never) counts as stale
    return bFresh && nSenderID < nPeerID;
}
