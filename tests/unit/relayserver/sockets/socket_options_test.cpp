#include "relayserver/sockets/socket_options.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/ip_utils.h"
#include "base/string_format.h"
#include "relayserver/settings/settings.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/loopback.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class SocketOptions : public EngineTest {
  protected:
    SocketOptions() : _fd(socket(AF_INET, SOCK_STREAM, 0)) {}
    ~SocketOptions() override { close(_fd); }

    [[nodiscard]] int fd() const { return _fd; }
    [[nodiscard]] int nUsable(int nOption) const {
        int nBytes = 0;
        socklen_t nLen = sizeof nBytes;
        EXPECT_EQ(0, getsockopt(_fd, SOL_SOCKET, nOption, &nBytes, &nLen));
        return nBytes / 2;
    }

  private:
    int _fd;
};

TEST_F(SocketOptions, NonBlockingIsTheOnlyFlagLeft) {
    int fds[2] = {-1, -1};
    ASSERT_EQ(0, pipe(fds));
    fcntl(fds[1], F_SETFL, O_APPEND);
    EXPECT_TRUE(makeNonBlocking(fds[1]));
    EXPECT_EQ(O_NONBLOCK | O_WRONLY, fcntl(fds[1], F_GETFL));
    close(fds[0]);
    close(fds[1]);
    EXPECT_FALSE(makeNonBlocking(fds[1]));
}

TEST_F(SocketOptions, RaisesTheSendBuffer) {
    ASSERT_LT(nUsable(SO_SNDBUF), 150000);
    EXPECT_TRUE(bIncreaseSockTxBuf(fd(), 150000));
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("Increased send buffer size to %d bytes (of 150000 "
                                          "requested) on socket fd %d\n",
                                          nUsable(SO_SNDBUF), fd())));
    EXPECT_EQ(150000, nUsable(SO_SNDBUF));
}

TEST_F(SocketOptions, RaisesTheReceiveBuffer) {
    ASSERT_LT(nUsable(SO_RCVBUF), 150000);
    EXPECT_TRUE(bIncreaseSockRxBuf(fd(), 150000));
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("Increased receive buffer size to %d bytes (of 150000 "
                                          "requested) on socket fd %d\n",
                                          nUsable(SO_RCVBUF), fd())));
}

TEST_F(SocketOptions, TellsWhatItGotOfWhatItAskedFor) {
    constexpr int kHuge = 1000000000;
    EXPECT_TRUE(bIncreaseSockTxBuf(fd(), kHuge));
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("Increased send buffer size to %d bytes (of 1000000000 "
                                          "requested) on socket fd %d\n",
                                          nUsable(SO_SNDBUF), fd())));
    EXPECT_LT(nUsable(SO_SNDBUF), kHuge);
}

TEST_F(SocketOptions, ALargeEnoughBufferIsLeftAlone) {
    const int nBefore = nUsable(SO_SNDBUF);
    EXPECT_TRUE(bIncreaseSockTxBuf(fd(), nBefore));
    EXPECT_TRUE(bIncreaseSockTxBuf(fd(), 1));
    EXPECT_EQ(nBefore, nUsable(SO_SNDBUF));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(SocketOptions, NoSocketHasNoBuffer) {
    for (const int fdNone : {0, -1}) {
        EXPECT_FALSE(bIncreaseSockTxBuf(fdNone, 1000));
        EXPECT_FALSE(bIncreaseSockRxBuf(fdNone, 1000));
    }
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(SocketOptions, ABufferThatCannotBeSetIsLogged) {
    int fds[2] = {-1, -1};
    ASSERT_EQ(0, pipe(fds));  // has no socket options
    EXPECT_FALSE(bIncreaseSockTxBuf(fds[0], 1000));
    EXPECT_FALSE(bIncreaseSockRxBuf(fds[0], 1000));
    EXPECT_THAT(
        loggedLines(),
        ElementsAre(
            string_format("Setsockopt failure increase send buffer size on socket fd %d\n", fds[0]),
            string_format("Setsockopt failure increase receive buffer size on socket fd %d\n",
                          fds[0])));
    close(fds[0]);
    close(fds[1]);
}

TEST_F(SocketOptions, WithoutADeviceTheSystemChooses) {
    EXPECT_TRUE(bSetSocketInterface(fd()));
    EXPECT_THAT(loggedLines(), ElementsAre("Using system default interface\n"));
}

TEST_F(SocketOptions, AnUnknownDeviceIsLogged) {
    sBindDev = "nosuchdev9";
    EXPECT_FALSE(bSetSocketInterface(fd()));
    EXPECT_THAT(loggedLines(), ElementsAre("Error: couldn't set socket interface to nosuchdev9\n"));
}

TEST_F(SocketOptions, WithoutABindAddressNothingIsBound) {
    EXPECT_TRUE(bSetLocalSourceAddress(fd()));
    EXPECT_THAT(loggedLines(), IsEmpty());
    EXPECT_EQ(0, nLocalPort(fd()));
}

TEST_F(SocketOptions, ABindAddressIsTheSourceWithAnyPort) {
    sBindAddr = "127.0.0.3";
    EXPECT_TRUE(bSetLocalSourceAddress(fd()));
    EXPECT_THAT(loggedLines(), ElementsAre("Bind to local address 127.0.0.3\n"));
    sockaddr_in siLocal{};
    socklen_t nLen = sizeof siLocal;
    ASSERT_EQ(0, getsockname(fd(), reinterpret_cast<sockaddr*>(&siLocal), &nLen));
    EXPECT_EQ("127.0.0.3", sDottedAddress(siLocal));
    EXPECT_NE(0, nPortOf(siLocal));
}

TEST_F(SocketOptions, AnInvalidBindAddressIsLogged) {
    sBindAddr = "relay.example";
    EXPECT_FALSE(bSetLocalSourceAddress(fd()));
    EXPECT_THAT(loggedLines(), ElementsAre("ERROR: Invalid bind address: relay.example\n"));
}

TEST_F(SocketOptions, ABindAddressThatIsNotOursIsLogged) {
    sBindAddr = "192.0.2.1";
    EXPECT_FALSE(bSetLocalSourceAddress(fd()));
    EXPECT_THAT(loggedLines(), ElementsAre("Error: bind to local address 192.0.2.1\n"));
}

TEST_F(SocketOptions, DisablesNagleWhereThereIsOne) {
    EXPECT_TRUE(bDisableNagle(fd()));
    int nOn = 0;
    socklen_t nLen = sizeof nOn;
    ASSERT_EQ(0, getsockopt(fd(), IPPROTO_TCP, TCP_NODELAY, &nOn, &nLen));
    EXPECT_NE(0, nOn);
    int fds[2] = {-1, -1};
    ASSERT_EQ(0, pipe(fds));
    EXPECT_FALSE(bDisableNagle(fds[0]));
    close(fds[0]);
    close(fds[1]);
}

TEST_F(SocketOptions, ListenersBindToAnyAddressByDefault) {
    const sockaddr_in siAddress = siListenAddress("TCP", 9736);
    EXPECT_EQ(AF_INET, siAddress.sin_family);
    EXPECT_EQ("0.0.0.0", sDottedAddress(siAddress));
    EXPECT_EQ(9736, nPortOf(siAddress));
}

TEST_F(SocketOptions, ListenersBindToTheBindAddress) {
    sBindAddr = "127.0.0.3";
    EXPECT_EQ("127.0.0.3", sDottedAddress(siListenAddress("TCP", 9736)));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(SocketOptions, ListenersBindToAnyAddressIfTheBindAddressIsNone) {
    sBindAddr = "1.2.3";
    EXPECT_EQ("0.0.0.0", sDottedAddress(siListenAddress("TCP", 9736)));
    EXPECT_EQ("0.0.0.0", sDottedAddress(siListenAddress("SSL", 9736)));
    EXPECT_EQ("0.0.0.0", sDottedAddress(siListenAddress("UDP", 9736)));
    EXPECT_THAT(loggedLines(),
                ElementsAre("ERROR: Invalid TCP bind address: 1.2.3, using INADDR_ANY\n",
                            "ERROR: Invalid SSL bind address: 1.2.3, using INADDR_ANY\n",
                            "ERROR: Invalid UDP bind address: 1.2.3, using INADDR_ANY\n"));
}

}  // namespace
