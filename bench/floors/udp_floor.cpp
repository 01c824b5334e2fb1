#include "bench/floors/udp_floor.h"

#include <arpa/inet.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "bench/floors/introduction.h"

namespace Floor {

namespace {

constexpr int kPrograms = 6;
constexpr int kProgramStep = 2;
constexpr int kChannels = 3;
constexpr int kChannelStep = 100;
/// As the relay's.
constexpr int kSocketBuffer = 2 << 20;

bool bSameAddress(const sockaddr_in& one, const sockaddr_in& other) {
    return one.sin_addr.s_addr == other.sin_addr.s_addr && one.sin_port == other.sin_port;
}

UdpPort openUdpPort(const char* sAddress, int nPort) {
    sockaddr_in siOwn{};
    siOwn.sin_family = AF_INET;
    siOwn.sin_port = htons(static_cast<std::uint16_t>(nPort));
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &kSocketBuffer, sizeof kSocketBuffer);
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof kSocketBuffer);
    if (inet_pton(AF_INET, sAddress, &siOwn.sin_addr) != 1 ||
        bind(fd, reinterpret_cast<sockaddr*>(&siOwn), sizeof siOwn) != 0) {
        std::perror("a socket");
        std::exit(EXIT_FAILURE);
    }
    return {fd, {}};
}

// The answer tells a receiver that it need not repeat its introduction.
void introduce(UdpPort& rPort, const sockaddr_in& siSender, const iovec& datagram) {
    const auto* const pBytes = static_cast<const char*>(datagram.iov_base);
    const bool bKnown =
        std::any_of(rPort.receivers.begin(), rPort.receivers.end(),
                    [&](const sockaddr_in& siOne) { return bSameAddress(siOne, siSender); });
    if (pBytes[1] == kReceiver && !bKnown) {
        rPort.receivers.push_back(siSender);
    }
    (void)sendto(rPort.fd, pBytes, datagram.iov_len, 0,
                 reinterpret_cast<const sockaddr*>(&siSender), sizeof siSender);
}

}  // namespace

UdpInput::UdpInput() {
    for (std::size_t i = 0; i < kMostReceived; ++i) {
        parts[i] = {buffers[i].data(), kMostBytes};
        headers[i] = {};
        headers[i].msg_hdr.msg_name = &senders[i];
        headers[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
        headers[i].msg_hdr.msg_iov = &parts[i];
        headers[i].msg_hdr.msg_iovlen = 1;
    }
}

gsl::span<iovec> UdpInput::receive(UdpPort& rPort) {
    const int nReceived = recvmmsg(rPort.fd, headers.data(), kMostReceived, MSG_DONTWAIT, nullptr);
    std::size_t nDatagrams = 0;
    for (int n = 0; n < nReceived; ++n) {
        const auto i = static_cast<std::size_t>(n);
        const iovec datagram = {buffers[i].data(), headers[i].msg_len};
        headers[i].msg_hdr.msg_namelen = sizeof(sockaddr_in);
        if (datagram.iov_len == kIntroductionLen) {
            introduce(rPort, senders[i], datagram);
        } else {
            datagrams[nDatagrams++] = datagram;
        }
    }
    return {datagrams.data(), nDatagrams};
}

std::vector<UdpPort> openUdpPorts(const char* sAddress, const char* sPort) {
    std::vector<UdpPort> ports;
    for (int nChannel = 0; nChannel < kChannels; ++nChannel) {
        for (int nProgram = 0; nProgram < kPrograms; ++nProgram) {
            const int nAbove = kProgramStep * nProgram + kChannelStep * nChannel;
            ports.push_back(openUdpPort(sAddress, std::atoi(sPort) + nAbove));
        }
    }
    return ports;
}

int fdWatchAll(const std::vector<UdpPort>& ports) {
    const int fdEpoll = epoll_create1(EPOLL_CLOEXEC);
    for (std::size_t i = 0; i < ports.size(); ++i) {
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u32 = static_cast<std::uint32_t>(i);
        epoll_ctl(fdEpoll, EPOLL_CTL_ADD, ports[i].fd, &event);
    }
    return fdEpoll;
}

gsl::span<const std::uint32_t> waitForInput(int fdEpoll) {
    constexpr std::size_t nMost = kPrograms * kChannels;
    static std::array<epoll_event, nMost> events;
    static std::array<std::uint32_t, nMost> places;
    const int nReady = epoll_wait(fdEpoll, events.data(), static_cast<int>(nMost), -1);
    for (int n = 0; n < nReady; ++n) {
        const auto i = static_cast<std::size_t>(n);
        places[i] = events[i].data.u32;
    }
    return {places.data(), static_cast<std::size_t>(std::max(nReady, 0))};
}

void sendAll(int fd, gsl::span<mmsghdr> headers) {
    while (!headers.empty()) {
        const int nSent = sendmmsg(fd, headers.data(), static_cast<unsigned>(headers.size()), 0);
        headers = headers.subspan(static_cast<std::size_t>(std::max(nSent, 1)));
    }
}

}  // namespace Floor
