#include "relayserver/admission/plain_accept.h"

#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>

#include "base/clock.h"
#include "base/get_strerror.h"
#include "base/ip_utils.h"
#include "base/string_format.h"
#include "connserver/logging.h"
#include "orvex/misc_utils.h"
#include "relayserver/admission/connect_limits.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/sockets/accept_pause.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "relayserver/sockets/socket_options.h"

namespace {

/// The most connections accepted in one pass, so that other descriptors are not delayed.
constexpr int kMaxAcceptsPerPass = 64;

constexpr AcceptTexts kPlainTexts{
    "Warning: socket accept call returned -1 with error ",
    "No connection to CS, not accepting connection from ",
    "Blocking connection from ",
};

void onAcceptFailed(int fdListener, const AcceptTexts& texts) {
    const int nProblem = errno;
    const bool bNoDescriptors =
        nProblem == EMFILE || nProblem == ENFILE || nProblem == ENOBUFS || nProblem == ENOMEM;
    if (!bNoDescriptors || bPauseAccepting(fdListener)) {
        writeToLog(true, "%s%d\n", texts.sAcceptFailed, nProblem);
    }
}

[[nodiscard]] bool bConnectionPending() {
    pollfd pfd{connect_listen_sockfd, POLLIN, 0};
    return poll(&pfd, 1, 0) == 1;
}

}  // namespace

int nAcceptClient(int fdListener, sockaddr_in& rsiPeer, const AcceptTexts& texts) {
    rsiPeer = {};
    const int fd = accept_nonblock(fdListener, reinterpret_cast<sockaddr*>(&rsiPeer));
    if (fd == -1) {
        onAcceptFailed(fdListener, texts);
        return -1;
    }
    noteAccepted();
    const std::string sPeer = sDottedAddress(rsiPeer);
    if (!bAccepting) {
        close(fd);
        writeToLog(true, "%s%s\n", texts.sNotAccepting, sPeer.c_str());
        return -1;
    }
    if (!CheckIPAddrConnectLimit(sPeer)) {
        close(fd);
        writeToLog(true, "%s%s temporarily, limit exceeded\n", texts.sOverLimit, sPeer.c_str());
        return -1;
    }
    return fd;
}

bool bAcceptPlainClient() {
    sockaddr_in siPeer{};
    const int fd = nAcceptClient(connect_listen_sockfd, siPeer, kPlainTexts);
    if (fd == -1) {
        return false;
    }
    writeToLog(true, "New client request received from %s(%d)\n", sDottedAddress(siPeer).c_str(),
               nPortOf(siPeer));
    if (!bDisableNagle(fd)) {
        // Despite the text, the connection is served.
        const int nProblem = errno;
        writeToLog(true,
                   "Error: Couldn't disable Nagle algorithm for send socket. %s. relayserver "
                   "quitting.\n",
                   get_strerror(nProblem).c_str());
        errno = nProblem;  // logging may have changed it
        std::perror("disable Nagle algorithm for send socket");
    }
    Orvex::RelayClient client{Orvex::RelayMessageSocket(fd, siPeer)};
    client.SetLastMessageTime(nowSecs());
    ctLooseClientTable.Add(client);
    makeNonBlocking(fd);
    addToEpollForRead(fd);
    return true;
}

void acceptWaitingPlainClients() {
    int nTaken = 0;
    while (bAcceptPlainClient() && ++nTaken < kMaxAcceptsPerPass && bConnectionPending()) {
    }
}
