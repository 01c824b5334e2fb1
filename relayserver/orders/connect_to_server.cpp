#include "relayserver/orders/connect_to_server.h"

#include <netdb.h>
#include <openssl/err.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>

#include "base/clock.h"
#include "base/get_strerror.h"
#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "connserver/signal_handling.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/cslink/login.h"
#include "relayserver/loop/housekeeping.h"
#include "relayserver/settings/settings.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/socket_options.h"
#include "relayserver/sockets/ssl_contexts.h"

namespace {

constexpr int kFailed = -1;
constexpr int kConnServPort = 9736;
constexpr int kWaitMillis = 5000;
/// How long a request to end the process may go unnoticed.
constexpr int kWaitSliceMillis = 200;
constexpr int kRetryMillis = 1000;

/// Gives the running attempt up: the next server is tried next.
int nFailAndSwitch() {
    SwitchServers();
    LostConnectionToCS();
    return kFailed;
}

bool bRewatch(bool bForWrite) {
    removeFromEpoll(connserv_sockfd);
    return bForWrite ? addToEpollForWrite(connserv_sockfd) : addToEpollForRead(connserv_sockfd);
}

// ---- starting an attempt

/// The first IPv4 address of the server in front; false, logged, when its name does not resolve.
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

/// A socket with the configured options; -1, logged, when there is none to be had.
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

void noteAttempt() {
    ttLastCSConnectAttempt = nowSecs();
    char achTime[26] = {};
    writeToLog(true, "initialized connection server reconnect timer at: %s",
               ctime_r(&ttLastCSConnectAttempt, achTime));
    clampTimersToNow(ttLastCSConnectAttempt);
}

int nStartAttempt() {
    noteAttempt();
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
    connserv_sockfd = fd;
    msConnServMsgSock = Orvex::RelayMessageSocket(fd, siServer);
    addToEpollForWrite(fd);
    nConnectionStage = WAITING_FOR_CONNECT;
    return nConnectionStage;
}

// ---- TLS

void logTlsLibraryErrors() {
    ERR_print_errors_cb(sslErrorCallback, nullptr);
}

/// One step of the handshake. `bFirst`: the step right after the connect, whose texts differ.
int nStepHandshake(bool bFirst) {
    ERR_clear_error();
    const int nResult = SSL_do_handshake(connserv_ssl);
    if (nResult == 1) {
        writeToLog(true, bFirst ? "SSL handshake was successful unexpectly after write phase...\n"
                                : "Completed SSL handshake to connserver\n");
        bRewatch(false);
        nConnectionStage = WAITING_FOR_CHALLENGE;
        return nConnectionStage;
    }
    const int nError = SSL_get_error(connserv_ssl, nResult);
    if (nError == SSL_ERROR_WANT_WRITE || nError == SSL_ERROR_WANT_READ) {
        bRewatch(nError == SSL_ERROR_WANT_WRITE);
        return nConnectionStage;
    }
    logTlsLibraryErrors();
    writeToLog(true, bFirst ? "SSL handshake with CS failed, library trace above\n"
                            : "SSL handshake with CS failed, library callback above\n");
    return nFailAndSwitch();
}

int nStartHandshake() {
    writeToLog(true, "Setting up SSL to connserver, beginning handshake\n");
    connserv_ssl = SSL_new(sslctx_client.get());
    if (connserv_ssl == nullptr || SSL_set_fd(connserv_ssl, connserv_sockfd) != 1) {
        logTlsLibraryErrors();
        writeToLog(true, "SSL handshake with CS failed, library trace above\n");
        return nFailAndSwitch();
    }
    SSL_set_connect_state(connserv_ssl);
    sockaddr_in siServer{};
    msConnServMsgSock.GetAddress(siServer);
    msConnServMsgSock = Orvex::RelayMessageSocket(connserv_sockfd, siServer, connserv_ssl);
    nConnectionStage = SSL_HANDSHAKE;
    return nStepHandshake(true);
}

// ---- one event

int nFinishConnect() {
    writeToLog(true, "Finished non-blocking connect to connserver\n");
    (void)bDisableNagle(connserv_sockfd);  // the link works without, only later
    if (bCS_ssl) {
        return nStartHandshake();
    }
    bRewatch(false);
    nConnectionStage = WAITING_FOR_CHALLENGE;
    return nConnectionStage;
}

int nHandleWritable() {
    switch (nConnectionStage) {
        case WAITING_FOR_CONNECT:
            return nFinishConnect();
        case SSL_HANDSHAKE:
            return nStepHandshake(false);
        default:
            writeToLog(true,
                       "WARNING: CS socket signaling ready to write from unexpected state - "
                       "cancelling this epoll notification\n");
            bRewatch(false);
            return nConnectionStage;
    }
}

/// Reads what the server sent and handles it; what arrived whole before the link broke counts.
int nHandleReadable() {
    const bool bBroken = msConnServMsgSock.nReadNonBlockingSocket() < 0;
    const std::string sProblem = msConnServMsgSock.getErrorString();
    if (handleLinkMessages() < 0) {
        return kFailed;
    }
    if (bBroken) {
        writeToLog(true,
                   "WARNING: broken connection to connserver during initial connect stages : %s\n",
                   sProblem.c_str());
        return nFailAndSwitch();
    }
    return nConnectionStage;
}

int nHandleEvent(const epoll_event& epe) {
    if ((epe.events & EPOLLOUT) != 0) {
        return nHandleWritable();
    }
    if ((epe.events & EPOLLIN) == 0) {
        writeToLog(true, "Epoll signaling error on CS connection\n");
        LostConnectionToCS();
        return kFailed;
    }
    if (nConnectionStage == SSL_HANDSHAKE) {
        return nStepHandshake(false);
    }
    return nHandleReadable();
}

// ---- waiting

/// Waits for events, but not past a request to end the process: then as if nothing had come.
int nWaitForEvents() {
    for (int nWaited = 0; nWaited < kWaitMillis && exitRequested == 0;
         nWaited += kWaitSliceMillis) {
        const int nReady = epoll_wait(ep_fd, ep_events, kMaxEpollEvents, kWaitSliceMillis);
        if (nReady != 0 && !(nReady == -1 && errno == EINTR)) {
            return nReady;
        }
    }
    return 0;
}

/// The event of the link among the first `nReady`, or null.
epoll_event* findLinkEvent(int nReady) {
    epoll_event* const pEnd = ep_events + nReady;
    epoll_event* const pFound = std::find_if(ep_events, pEnd, [](const epoll_event& epe) {
        return nDescriptorOf(epe) == connserv_sockfd && bIsCurrent(epe);
    });
    return pFound == pEnd ? nullptr : pFound;
}

/// One wait and what came of it: the stage, or -1.
int nWaitOnce() {
    const int nReady = nWaitForEvents();
    if (nReady == -1) {
        writeToLog(true, "Error: epoll failed. %s.\n", get_strerror(errno).c_str());
        closeLink();
        return kFailed;
    }
    if (nReady == 0 && exitRequested != 0) {
        closeLink();
        return kFailed;
    }
    if (nReady == 0) {
        writeToLog(true, "waiting for login response timed out\n");
        closeLink();
        SwitchServers();
        return kFailed;
    }
    const epoll_event* const pEvent = findLinkEvent(nReady);
    if (pEvent == nullptr) {
        writeToLog(true, "cs epoll - no new data to operate on!\n");
        SwitchServers();
        closeLink();
        return kFailed;
    }
    return nHandleEvent(*pEvent);
}

int nWaitUntilFinished() {
    while (nConnectionStage != CONNECTION_FINISHED) {
        // Messages that wait inside the TLS session announce themselves by no event.
        const int nResult = msConnServMsgSock.bHasMoreInput() && nConnectionStage > SSL_HANDSHAKE
                                ? nHandleReadable()
                                : nWaitOnce();
        if (nResult < 0) {
            return kFailed;
        }
    }
    return nConnectionStage;
}

}  // namespace

int ConnectToServer(bool bWait, epoll_event* epe) {
    if (nConnectionStage == CONNECTION_IDLE) {
        const int nResult = nStartAttempt();
        if (nResult < 0 || !bWait) {
            return nResult;
        }
    }
    if (bWait) {
        return nWaitUntilFinished();
    }
    return epe == nullptr ? nConnectionStage : nHandleEvent(*epe);
}

void reconnectUnlessThrottled() {
    if (std::difftime(nowSecs(), ttLastCSConnectAttempt) >= connectRetry_secs) {
        ConnectToServer(false, nullptr);
    } else {
        writeToLog(true, "Throttling reconnect attempt, must wait at least %u seconds\n",
                   connectRetry_secs);
    }
}

bool bConnectToFirstServer() {
    while (exitRequested == 0) {
        const int nResult = ConnectToServer(true, nullptr);
        if (nResult == CONNECTION_FINISHED) {
            return true;
        }
        if (exitRequested != 0) {
            break;
        }
        writeToLog(true, "connection to server failed with code %d...\n", nResult);
        if (bWaitForExitRequest(kRetryMillis)) {
            break;
        }
        writeToLog(false, "retrying\n");
    }
    return false;
}
