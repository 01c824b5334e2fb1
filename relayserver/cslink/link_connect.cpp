#include "relayserver/cslink/link_connect.h"

#include <netdb.h>
#include <openssl/err.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "base/clock.h"
#include "base/get_strerror.h"
#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/settings.h"
#include "relayserver/settings/timers.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/socket_options.h"
#include "relayserver/sockets/ssl_contexts.h"

namespace {

constexpr int kFailed = -1;
constexpr int kConnServPort = 9736;

/// The first IPv4 address of the server at the front of `serverQ`, with the port; false, with the
/// reason logged, if its name does not resolve.
[[nodiscard]] bool bResolveServer(sockaddr_in& rsiAddress) {
    const hostent* const pHost = serverQ.empty() ? nullptr : gethostbyname(serverQ.front().c_str());
    if (pHost == nullptr || pHost->h_addrtype != AF_INET || pHost->h_addr_list[0] == nullptr) {
        writeToLog(true, "gethostbyname failed: invalid server.\n");
        return false;
    }
    rsiAddress = {};
    rsiAddress.sin_family = AF_INET;
    rsiAddress.sin_port = htons(bCS_ssl ? cs_ssl_port : kConnServPort);
    std::copy_n(pHost->h_addr_list[0], sizeof rsiAddress.sin_addr,
                reinterpret_cast<char*>(&rsiAddress.sin_addr));
    return true;
}

/// A socket with the configured options; -1, with the reason logged, on failure.
int nOpenLinkSocket() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        writeToLog(true, "Error: connserv_sockfd socket creation failed. %s.\n",
                   get_strerror(errno).c_str());
        return -1;
    }
    if (!bSetSocketInterface(fd) || !bSetLocalSourceAddress(fd)) {
        closeDescriptor(fd);
        return -1;
    }
    bIncreaseSockTxBuf(fd, kLinkTxBufBytes);
    return fd;
}

void beginAttempt() {
    noteAttempt(nowSecs());
    char achTime[26] = {};
    writeToLog(true, "initialized connection server reconnect timer at: %s",
               ctime_r(&ttLastCSConnectAttempt, achTime));
    clampTimersToNow(ttLastCSConnectAttempt);
}

void logTlsLibraryErrors() {
    ERR_print_errors_cb(sslErrorCallback, nullptr);
}

/// One step of the handshake. `bFirst`: the step right after the connect, which logs different
/// texts.
int nDoHandshakeStep(bool bFirst) {
    ERR_clear_error();
    const int nResult = SSL_do_handshake(connserv_ssl);
    if (nResult == 1) {
        writeToLog(true, bFirst ? "SSL handshake was successful unexpectly after write phase...\n"
                                : "Completed SSL handshake to connserver\n");
        rewatchLink(false);
        enterStage(WAITING_FOR_CHALLENGE);
        return nConnectionStage;
    }
    const int nError = SSL_get_error(connserv_ssl, nResult);
    if (nError == SSL_ERROR_WANT_WRITE || nError == SSL_ERROR_WANT_READ) {
        rewatchLink(nError == SSL_ERROR_WANT_WRITE);
        return nConnectionStage;
    }
    logTlsLibraryErrors();
    writeToLog(true, bFirst ? "SSL handshake with CS failed, library trace above\n"
                            : "SSL handshake with CS failed, library callback above\n");
    return nFailAndSwitch();
}

int nStartHandshake() {
    writeToLog(true, "Setting up SSL to connserver, beginning handshake\n");
    adoptSession(SSL_new(sslctx_client.get()));
    if (connserv_ssl == nullptr || SSL_set_fd(connserv_ssl, connserv_sockfd) != 1) {
        logTlsLibraryErrors();
        writeToLog(true, "SSL handshake with CS failed, library trace above\n");
        return nFailAndSwitch();
    }
    SSL_set_connect_state(connserv_ssl);
    enterStage(SSL_HANDSHAKE);
    return nDoHandshakeStep(true);
}

}  // namespace

int nStartAttempt() {
    beginAttempt();
    sockaddr_in siServer{};
    if (!bResolveServer(siServer)) {
        return kFailed;
    }
    const int fd = nOpenLinkSocket();
    if (fd == -1) {
        return kFailed;
    }
    if (bCS_ssl) {
        ensureClientContext();
    }
    const std::string sAddress = sDottedAddress(siServer);
    writeToLog(true, "Attempting connection to server %s\n", sAddress.c_str());
    makeNonBlocking(fd);
    if (connect(fd, reinterpret_cast<const sockaddr*>(&siServer), sizeof siServer) == -1 &&
        errno != EINPROGRESS) {
        writeToLog(true, "Error initiating connect to server %s\n", sAddress.c_str());
        closeDescriptor(fd);
        SwitchServers();
        return kFailed;
    }
    adoptSocket(fd, siServer);
    addToEpollForWrite(fd);
    return nConnectionStage;
}

int nFinishConnect() {
    writeToLog(true, "Finished non-blocking connect to connserver\n");
    (void)bDisableNagle(connserv_sockfd);  // the link works without it, with more delay
    if (bCS_ssl) {
        return nStartHandshake();
    }
    rewatchLink(false);
    enterStage(WAITING_FOR_CHALLENGE);
    return nConnectionStage;
}

int nStepHandshake() {
    return nDoHandshakeStep(false);
}

void rewatchLink(bool bForWrite) {
    removeFromEpoll(connserv_sockfd);
    if (bForWrite) {
        addToEpollForWrite(connserv_sockfd);
    } else {
        addToEpollForRead(connserv_sockfd);
    }
}

int nFailAndSwitch() {
    SwitchServers();
    LostConnectionToCS();
    return kFailed;
}
