#include "bench/load/udp_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <array>
#include <set>
#include <thread>

namespace {

using namespace Load;

/// The next datagram of a socket, and where it came from.
std::string sReceive(const UdpSocket& socket, sockaddr_in& rFrom) {
    std::array<char, 64> achBuffer;
    socklen_t nLen = sizeof rFrom;
    const ssize_t nGot = recvfrom(socket.getFileDesc(), achBuffer.data(), achBuffer.size(), 0,
                                  reinterpret_cast<sockaddr*>(&rFrom), &nLen);
    return {achBuffer.data(), static_cast<std::size_t>(nGot)};
}

TEST(OpenUdpRow, HasPortsTwoApartAtOneAddress) {
    const auto row = openUdpRow("127.0.0.1", 3);
    ASSERT_EQ(row.size(), 3U);
    const int nFirst = ntohs(row[0].siOwnAddress().sin_port);
    for (int i = 0; i < 3; ++i) {
        const sockaddr_in& siOwn = row[static_cast<std::size_t>(i)].siOwnAddress();
        EXPECT_EQ(ntohs(siOwn.sin_port), nFirst + 2 * i);
        EXPECT_EQ(ntohl(siOwn.sin_addr.s_addr), INADDR_LOOPBACK);
    }
}

TEST(UdpClientAddress, IsAnotherOneForEveryClient) {
    std::set<std::string> seen;
    for (int i = 0; i < 9100; ++i) {
        const std::string sAddress = sUdpClientAddress(200, i);
        (void)siMakeAddress(sAddress, 1);
        EXPECT_TRUE(seen.insert(sAddress).second) << sAddress;
    }
}

TEST(UdpSocketExchange, AsksAgainUntilTheRightAnswerComes) {
    const UdpSocket client = std::move(openUdpRow("127.0.0.1", 1).front());
    const UdpSocket server = std::move(openUdpRow("127.0.0.1", 1).front());
    std::thread answering([&] {
        sockaddr_in siFrom{};
        EXPECT_EQ(sReceive(server, siFrom), "ask");
        server.sendTo(siFrom, "something else");
        EXPECT_EQ(sReceive(server, siFrom), "ask");
        server.sendTo(siFrom, "answer");
    });
    const std::string sAnswer =
        client.sExchange(server.siOwnAddress(), "ask",
                         [](std::string_view svAnswer) { return svAnswer == "answer"; });
    answering.join();
    EXPECT_EQ(sAnswer, "answer");
}

}  // namespace
