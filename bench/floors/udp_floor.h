/// What the UDP floors share: a socket for every program and channel, at the same ports as the
/// relay's; the receivers of each; the loop that reads.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <gsl/span>
#include <vector>

namespace Floor {

/// Datagrams that one wake-up reads at most, and the buffer size of each.
constexpr std::size_t kMostReceived = 1000;
constexpr std::size_t kMostBytes = 2048;
/// Datagrams that one sendmmsg takes at most.
constexpr std::size_t kMostSent = 1024;

/// One socket, and the receivers that have announced themselves to it.
struct UdpPort {
    int fd = -1;
    std::vector<sockaddr_in> receivers;
};

/// The datagrams received on a socket.
class UdpInput {
  public:
    UdpInput();
    /// Reads once. A datagram of the length of an introduction is one: its sender is added to the
    /// receivers, and gets it back. The others are returned; they are valid until the next call.
    gsl::span<iovec> receive(UdpPort& rPort);

  private:
    std::array<mmsghdr, kMostReceived> headers;
    std::array<iovec, kMostReceived> parts;
    std::array<sockaddr_in, kMostReceived> senders;
    std::array<std::array<char, kMostBytes>, kMostReceived> buffers;
    std::array<iovec, kMostReceived> datagrams;
};

/// Binds all sockets: those of channel c and program p at the port of the command line, and
/// 2 * p + 100 * c above it. Ends the program when one cannot be bound.
std::vector<UdpPort> openUdpPorts(const char* sAddress, const char* sPort);

/// An epoll set that watches all of them; events carry their indexes.
int fdWatchAll(const std::vector<UdpPort>& ports);

/// The indexes of the readable sockets; waits until there is one. Valid until the next call.
gsl::span<const std::uint32_t> waitForInput(int fdEpoll);

/// Sends all, in order; skips what the kernel refuses.
void sendAll(int fd, gsl::span<mmsghdr> headers);

/// Serves forever. `forward(port, datagrams)` sends datagrams to all receivers of the port.
template <class Forward>
[[noreturn]] void serveUdp(const char* sAddress, const char* sPort, Forward forward) {
    static UdpInput input;
    std::vector<UdpPort> ports = openUdpPorts(sAddress, sPort);
    const int fdEpoll = fdWatchAll(ports);
    while (true) {
        for (const std::uint32_t nIndex : waitForInput(fdEpoll)) {
            const gsl::span<iovec> datagrams = input.receive(ports[nIndex]);
            if (!datagrams.empty()) {
                forward(ports[nIndex], datagrams);
            }
        }
    }
}

}  // namespace Floor
