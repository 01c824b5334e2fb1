#include "relayserver/sockets/socket_options.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "relayserver/settings/settings.h"

namespace {

/// Half of the size that the kernel reports: the part that holds data. -1 if it cannot be read.
int nUsableBufBytes(int fd, int nOption) {
    int nBytes = 0;
    socklen_t nLen = sizeof nBytes;
    if (getsockopt(fd, SOL_SOCKET, nOption, &nBytes, &nLen) == -1) {
        return -1;
    }
    return nBytes / 2;
}

[[nodiscard]] bool bIncreaseSockBuf(int fd, int nBytes, int nOption, const char* sWhich) {
    if (fd < 1) {
        return false;
    }
    if (nUsableBufBytes(fd, nOption) >= nBytes) {
        return true;
    }
    if (setsockopt(fd, SOL_SOCKET, nOption, &nBytes, sizeof nBytes) == -1) {
        writeToLog(true, "Setsockopt failure increase %s buffer size on socket fd %u\n", sWhich,
                   static_cast<unsigned>(fd));
        return false;
    }
    writeToLog(true, "Increased %s buffer size to %u bytes (of %u requested) on socket fd %u\n",
               sWhich, static_cast<unsigned>(nUsableBufBytes(fd, nOption)),
               static_cast<unsigned>(nBytes), static_cast<unsigned>(fd));
    return true;
}

}  // namespace

bool makeNonBlocking(int fd) {
    return fcntl(fd, F_SETFL, O_NONBLOCK) != -1;
}

bool bIncreaseSockTxBuf(int fd, int nBytes) {
    return bIncreaseSockBuf(fd, nBytes, SO_SNDBUF, "send");
}

bool bIncreaseSockRxBuf(int fd, int nBytes) {
    return bIncreaseSockBuf(fd, nBytes, SO_RCVBUF, "receive");
}

bool bSetSocketInterface(int fd) {
    if (sBindDev.empty()) {
        writeToLog(true, "Using system default interface\n");
        return true;
    }
    if (setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, sBindDev.c_str(),
                   static_cast<socklen_t>(sBindDev.size() + 1)) == -1) {
        writeToLog(true, "Error: couldn't set socket interface to %s\n", sBindDev.c_str());
        return false;
    }
    return true;
}

bool bSetLocalSourceAddress(int fd) {
    if (sBindAddr.empty()) {
        return true;
    }
    sockaddr_in siLocal{};
    siLocal.sin_family = AF_INET;
    if (!bParseIPv4(sBindAddr, siLocal.sin_addr)) {
        writeToLog(true, "ERROR: Invalid bind address: %s\n", sBindAddr.c_str());
        return false;
    }
    if (bind(fd, reinterpret_cast<const sockaddr*>(&siLocal), sizeof siLocal) == -1) {
        writeToLog(true, "Error: bind to local address %s\n", sBindAddr.c_str());
        return false;
    }
    writeToLog(true, "Bind to local address %s\n", sBindAddr.c_str());
    return true;
}

bool bDisableNagle(int fd) {
    const int nOn = 1;
    return setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &nOn, sizeof nOn) != -1;
}

sockaddr_in siListenAddress(const char* sProtocol, int nPort) {
    sockaddr_in siAddress{};
    siAddress.sin_family = AF_INET;
    siAddress.sin_port = htons(static_cast<std::uint16_t>(nPort));
    siAddress.sin_addr.s_addr = htonl(INADDR_ANY);
    if (!sBindAddr.empty() && !bParseIPv4(sBindAddr, siAddress.sin_addr)) {
        writeToLog(true, "ERROR: Invalid %s bind address: %s, using INADDR_ANY\n", sProtocol,
                   sBindAddr.c_str());
        siAddress.sin_addr.s_addr = htonl(INADDR_ANY);
    }
    return siAddress;
}
