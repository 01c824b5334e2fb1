#include "relayserver/sockets/listeners.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "base/get_strerror.h"
#include "connserver/logging.h"
#include "connserver/signal_handling.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/fec_ports.h"
#include "relayserver/sockets/socket_options.h"
#include "relayserver/sockets/ssl_contexts.h"

int connect_listen_sockfd = 0;
int ssl_listen_sockfd = 0;
int udp_listen_sockfd[kAudioPrograms] = {-1, -1, -1, -1, -1, -1};
int udp_fec1_sockfd[kAudioPrograms] = {-1, -1, -1, -1, -1, -1};
int udp_fec2_sockfd[kAudioPrograms] = {-1, -1, -1, -1, -1, -1};

namespace {

constexpr int kListenBacklog = 500;
constexpr int kBindRetryMillis = 10000;
constexpr int kAudioBufBytes = 2097152;

[[nodiscard]] bool bSetOption(int fd, int nLevel, int nOption) {
    const int nOn = 1;
    return setsockopt(fd, nLevel, nOption, &nOn, sizeof nOn) != -1;
}

int nBind(int fd, const sockaddr_in& siAddress) {
    return bind(fd, reinterpret_cast<const sockaddr*>(&siAddress), sizeof siAddress);
}

/// Binds and listens. During a restart the old process may still hold the port, so a failed bind is
/// retried until the port is free or the process is asked to exit. `sProblem` precedes the reason
/// in the log.
ListenOutcome bindAndListen(int fd, const sockaddr_in& siAddress, const char* sProblem) {
    while (nBind(fd, siAddress) == -1) {
        writeToLog(true, "%s%s\n", sProblem, get_strerror(errno).c_str());
        if (bWaitForExitRequest(kBindRetryMillis)) {
            return ListenOutcome::kExitRequested;
        }
    }
    listen(fd, kListenBacklog);
    return ListenOutcome::kListening;
}

/// Logs and prints that a socket could not be created; `sSocket` names it in both texts.
void reportNoSocket(const char* sSocket) {
    const int nProblem = errno;
    writeToLog(true, "Error: %s socket creation failed. %s. relayserver quitting.\n", sSocket,
               get_strerror(nProblem).c_str());
    errno = nProblem;  // logging may have changed it
    std::perror((std::string(sSocket) + " socket").c_str());
}

/// Opens one FEC socket, bound to the audio address at `nPort` (modulo 65536); -1 with errno on
/// failure.
int nOpenFecSocket(sockaddr_in siAddress, int nPort) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        return -1;
    }
    siAddress.sin_port = htons(static_cast<std::uint16_t>(nPort));
    if (nBind(fd, siAddress) == -1) {
        const int nProblem = errno;
        close(fd);
        errno = nProblem;
        return -1;
    }
    return fd;
}

/// Opens the two FEC sockets of program `i`; disables FEC if one of them cannot be opened.
void openFecSockets(int i, const sockaddr_in& siAddress) {
    udp_fec1_sockfd[i] = nOpenFecSocket(siAddress, rtp_listen_port[i] + kFecSocketPortOffset);
    if (udp_fec1_sockfd[i] == -1) {
        writeToLog(true, "WARNING: could not set up udp FEC socket: %s\n",
                   get_strerror(errno).c_str());
        disableFec();
        return;
    }
    udp_fec2_sockfd[i] = nOpenFecSocket(siAddress, rtp_listen_port[i] + 2 * kFecSocketPortOffset);
    if (udp_fec2_sockfd[i] == -1) {
        writeToLog(true, "WARNING: could not set up udp  FEC 2 socket: %s\n",
                   get_strerror(errno).c_str());
        close(udp_fec1_sockfd[i]);
        udp_fec1_sockfd[i] = -1;
        disableFec();
        return;
    }
    (void)bSetSocketInterface(udp_fec1_sockfd[i]);  // logged there; FEC works on any interface
    (void)bSetSocketInterface(udp_fec2_sockfd[i]);
    writeToLog(true, "INFO: FEC sockets set correctly\n");
}

/// Opens the audio socket of program `i`; false, with the reason logged, on failure.
[[nodiscard]] bool bOpenAudioSocket(int i) {
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        reportNoSocket("udp_connect_socket");
        return false;
    }
    udp_listen_sockfd[i] = fd;
    if (!bSetSocketInterface(fd)) {
        return false;
    }
    const sockaddr_in siAddress = siListenAddress("UDP", rtp_listen_port[i]);
    if (nBind(fd, siAddress) == -1) {
        const int nProblem = errno;
        writeToLog(true, "Error: bind udp failed. %s. relayserver quitting.\n",
                   get_strerror(nProblem).c_str());
        errno = nProblem;  // logging may have changed it
        std::perror("bind udp");
        return false;
    }
    bIncreaseSockTxBuf(fd, kAudioBufBytes);
    bIncreaseSockRxBuf(fd, kAudioBufBytes);
    if (bFecEnable) {
        openFecSockets(i, siAddress);
    }
    return true;
}

}  // namespace

ListenOutcome openPlainListener() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        reportNoSocket("msg_rd_sockfd");
        return ListenOutcome::kFailed;
    }
    connect_listen_sockfd = fd;
    if (!bSetSocketInterface(fd)) {
        return ListenOutcome::kFailed;
    }
    const sockaddr_in siAddress = siListenAddress("TCP", msg_port);
    if (!bDisableNagle(fd) || !bSetOption(fd, SOL_SOCKET, SO_REUSEADDR)) {
        writeToLog(true, "Error: set sockopt: %s. relayserver quitting.\n",
                   get_strerror(errno).c_str());
        return ListenOutcome::kFailed;
    }
    return bindAndListen(fd, siAddress, "Error: Couldn't bind server. ");
}

ListenOutcome openTlsListener() {
    if (ssl_msg_port <= 0) {
        return ListenOutcome::kListening;
    }
    InitializeSSL();
    if (!bLoadServerCertificate()) {
        return ListenOutcome::kFailed;
    }
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd == -1) {
        reportNoSocket("ssl_listen_sockfd");
        return ListenOutcome::kFailed;
    }
    ssl_listen_sockfd = fd;
    (void)bSetSocketInterface(fd);  // logged there; TLS clients may use any interface
    const sockaddr_in siAddress = siListenAddress("SSL", ssl_msg_port);
    (void)bSetOption(fd, SOL_SOCKET, SO_REUSEADDR);  // only restarts are slower without it
    return bindAndListen(fd, siAddress, "Error: Couldn't bind SSL server: ");
}

bool bOpenAudioSockets() {
    for (int i = 0; i < kAudioPrograms; ++i) {
        if (!bOpenAudioSocket(i)) {
            return false;
        }
    }
    return true;
}

void watchListeners() {
    makeNonBlocking(connect_listen_sockfd);
    makeNonBlocking(ssl_listen_sockfd);
    addToEpollForRead(connect_listen_sockfd);
    // Without TLS this is descriptor 0, which start-up replaced with one that is never ready.
    addToEpollForRead(ssl_listen_sockfd);
}

void closeListeners() {
    closeDescriptor(connect_listen_sockfd);
    for (const int fd : udp_listen_sockfd) {
        closeDescriptor(fd);
    }
    if (ssl_listen_sockfd != 0) {
        closeDescriptor(ssl_listen_sockfd);
    }
}

void resetListenersForTest() {
    for (int* const pfd : {&connect_listen_sockfd, &ssl_listen_sockfd}) {
        if (*pfd != 0) {
            closeDescriptor(*pfd);
            *pfd = 0;
        }
    }
    for (auto* const pSockets : {&udp_listen_sockfd, &udp_fec1_sockfd, &udp_fec2_sockfd}) {
        for (int& rfd : *pSockets) {
            closeDescriptor(rfd);
            rfd = -1;
        }
    }
}
