#include "tests/unit/relayserver/loopback.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/ip_utils.h"

namespace {

constexpr int kWaitMillis = 5000;

sockaddr_in siLoopback(const std::string& sAddress, int nPort) {
    sockaddr_in siAddress{};
    siAddress.sin_family = AF_INET;
    siAddress.sin_port = htons(static_cast<std::uint16_t>(nPort));
    (void)bParseIPv4(sAddress, siAddress.sin_addr);  // tests pass addresses
    return siAddress;
}

}  // namespace

int nOpenLoopbackListener() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in siAddress = siLoopback("127.0.0.1", 0);
    bind(fd, reinterpret_cast<const sockaddr*>(&siAddress), sizeof siAddress);
    listen(fd, 500);
    fcntl(fd, F_SETFL, O_NONBLOCK);
    return fd;
}

int nLocalPort(int fd) {
    sockaddr_in siAddress{};
    socklen_t nLen = sizeof siAddress;
    getsockname(fd, reinterpret_cast<sockaddr*>(&siAddress), &nLen);
    return nPortOf(siAddress);
}

int nConnectLoopback(int nPort, const std::string& sFrom) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in siFrom = siLoopback(sFrom, 0);
    const sockaddr_in siTo = siLoopback("127.0.0.1", nPort);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&siFrom), sizeof siFrom) == -1 ||
        connect(fd, reinterpret_cast<const sockaddr*>(&siTo), sizeof siTo) == -1) {
        close(fd);
        return -1;
    }
    return fd;
}

bool bWaitReadable(int fd) {
    pollfd pfd{fd, POLLIN, 0};
    return poll(&pfd, 1, kWaitMillis) == 1;
}
