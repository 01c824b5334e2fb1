#include "bench/load/udp_socket.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "bench/load/cpu_clock.h"
#include "bench/load/give_up.h"

namespace Load {

namespace {

/// Room for what a daemon sends while we are busy with other sockets.
constexpr int kReceiveBuffer = 4 << 20;
constexpr int kPortStep = 2;
constexpr int kBindAttempts = 50;
constexpr int kAnswerMs = 50;
constexpr std::int64_t kTimeoutNs = 10'000'000'000;
/// The third number of addresses begins here; those of TCP clients are below.
constexpr int kFirstNumber = 100;
constexpr int kPerNumber = 250;

}  // namespace

sockaddr_in siMakeAddress(const std::string& sAddress, std::uint16_t nPort) {
    sockaddr_in siResult{};
    siResult.sin_family = AF_INET;
    siResult.sin_port = htons(nPort);
    if (inet_pton(AF_INET, sAddress.c_str(), &siResult.sin_addr) != 1) {
        giveUp("not an IPv4 address: %s", sAddress.c_str());
    }
    return siResult;
}

std::string sUdpClientAddress(int nClientNet, int nNumber) {
    return "127." + std::to_string(nClientNet) + "." +
           std::to_string(kFirstNumber + nNumber / kPerNumber) + "." +
           std::to_string(1 + nNumber % kPerNumber);
}

UdpSocket::~UdpSocket() {
    if (fd >= 0) {
        close(fd);
    }
}

UdpSocket::UdpSocket(UdpSocket&& rOther) noexcept
    : fd(std::exchange(rOther.fd, -1)), siOwn(rOther.siOwn) {}

UdpSocket& UdpSocket::operator=(UdpSocket&& rOther) noexcept {
    std::swap(fd, rOther.fd);
    std::swap(siOwn, rOther.siOwn);
    return *this;
}

bool UdpSocket::bBind(const std::string& sAddress, std::uint16_t nPort) {
    siOwn = siMakeAddress(sAddress, nPort);
    fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        giveUp("no more sockets: %s", std::strerror(errno));
    }
    // The second form needs privileges, but has no limit.
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kReceiveBuffer, sizeof kReceiveBuffer);
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBuffer, sizeof kReceiveBuffer);
    socklen_t nLen = sizeof siOwn;
    return bind(fd, reinterpret_cast<const sockaddr*>(&siOwn), nLen) == 0 &&
           getsockname(fd, reinterpret_cast<sockaddr*>(&siOwn), &nLen) == 0;
}

std::vector<UdpSocket> openUdpRow(const std::string& sAddress, int nSockets) {
    for (int i = 0; i < kBindAttempts; ++i) {
        std::vector<UdpSocket> row(static_cast<std::size_t>(nSockets));
        bool bBound = row[0].bBind(sAddress, 0);
        int nPort = ntohs(row[0].siOwn.sin_port);
        for (std::size_t n = 1; bBound && n < row.size(); ++n) {
            nPort += kPortStep;
            bBound = row[n].bBind(sAddress, static_cast<std::uint16_t>(nPort));
        }
        if (bBound) {
            return row;
        }
    }
    giveUp("no free UDP ports at %s", sAddress.c_str());
}

void UdpSocket::sendTo(const sockaddr_in& siTo, std::string_view svDatagram) const {
    if (sendto(fd, svDatagram.data(), svDatagram.size(), 0,
               reinterpret_cast<const sockaddr*>(&siTo), sizeof siTo) < 0) {
        giveUp("a datagram cannot be sent: %s", std::strerror(errno));
    }
}

std::string UdpSocket::sExchange(const sockaddr_in& siTo, std::string_view svRequest,
                                 const std::function<bool(std::string_view)>& bIsAnswer) const {
    const std::int64_t nDeadline = nMonotonicNs() + kTimeoutNs;
    std::array<char, 2048> achAnswer;
    while (nMonotonicNs() < nDeadline) {
        sendTo(siTo, svRequest);
        pollfd pfd{fd, POLLIN, 0};
        while (poll(&pfd, 1, kAnswerMs) == 1) {
            const ssize_t nGot = recv(fd, achAnswer.data(), achAnswer.size(), MSG_DONTWAIT);
            const std::string_view svGot(achAnswer.data(),
                                         static_cast<std::size_t>(nGot > 0 ? nGot : 0));
            if (bIsAnswer(svGot)) {
                return std::string(svGot);
            }
        }
    }
    giveUp("the daemon does not answer over UDP");
}

}  // namespace Load
