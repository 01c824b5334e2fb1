#include "relayserver/sockets/listeners.h"

#include <fcntl.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/ip_utils.h"
#include "connserver/signal_handling.h"
#include "relayserver/sockets/epoll_set.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/admission/tls_peer.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/loopback.h"
#include "tests/unit/relayserver/temp_folder.h"

namespace {

using testing::Each;
using testing::ElementsAre;

class Listeners : public EngineTest {
  protected:
    Listeners() {
        // An address of this process's own: no other test can hold its ports.
        sBindAddr = "127.63." + std::to_string(getpid() / 256 % 256) + "." +
                    std::to_string(getpid() % 254 + 1);
        setRtpPorts(6900);
    }
    ~Listeners() override { exitRequested = 0; }

    static void setRtpPorts(int nFirst) {
        for (int i = 0; i < kAudioPrograms; ++i) {
            rtp_listen_port[i] = nFirst + 2 * i;
        }
    }

    static int nOption(int fd, int nLevel, int nName) {
        int nValue = 0;
        socklen_t nLen = sizeof nValue;
        EXPECT_EQ(0, getsockopt(fd, nLevel, nName, &nValue, &nLen));
        return nValue;
    }

    /// Takes a UDP port of the bind address.
    static Peer occupyUdp(int nPort) {
        const Peer occupier(socket(AF_INET, SOCK_DGRAM, 0));
        const sockaddr_in siAddress = siAt(nPort);
        EXPECT_EQ(0, bind(occupier.fd(), reinterpret_cast<const sockaddr*>(&siAddress),
                          sizeof siAddress));
        return Peer(dup(occupier.fd()));
    }
    static sockaddr_in siAt(int nPort) {
        sockaddr_in siAddress{};
        siAddress.sin_family = AF_INET;
        siAddress.sin_port = htons(static_cast<std::uint16_t>(nPort));
        EXPECT_TRUE(bParseIPv4(sBindAddr, siAddress.sin_addr));
        return siAddress;
    }
};

TEST_F(Listeners, ThePlainListenerListensAtItsPort) {
    EXPECT_EQ(ListenOutcome::kListening, openPlainListener());
    EXPECT_EQ(9736, nLocalPort(connect_listen_sockfd));
    EXPECT_EQ(1, nOption(connect_listen_sockfd, SOL_SOCKET, SO_ACCEPTCONN));
    EXPECT_NE(0, nOption(connect_listen_sockfd, SOL_SOCKET, SO_REUSEADDR));
    EXPECT_NE(0, nOption(connect_listen_sockfd, IPPROTO_TCP, TCP_NODELAY));
    EXPECT_THAT(loggedLines(), ElementsAre("Using system default interface\n"));
}

TEST_F(Listeners, AnUnknownDeviceEndsThePlainListener) {
    sBindDev = "nosuchdev9";
    EXPECT_EQ(ListenOutcome::kFailed, openPlainListener());
}

TEST_F(Listeners, ABusyPlainPortIsRetriedUntilTheProcessIsToEnd) {
    EXPECT_EQ(ListenOutcome::kListening, openPlainListener());
    const Peer first(dup(connect_listen_sockfd));
    resetListenersForTest();
    loggedLines().clear();
    exitRequested = 1;
    EXPECT_EQ(ListenOutcome::kExitRequested, openPlainListener());
    EXPECT_EQ("Error: Couldn't bind server. Address already in use\n", loggedLines().back());
}

TEST_F(Listeners, WithoutATlsPortThereIsNoTlsListener) {
    for (const int nPort : {0, -1}) {
        ssl_msg_port = nPort;
        EXPECT_EQ(ListenOutcome::kListening, openTlsListener());
        EXPECT_EQ(0, ssl_listen_sockfd);
    }
}

TEST_F(Listeners, TheTlsListenerListensAtItsPort) {
    const TempFolder folder;
    sCrtFile = folder.sFile("relay.pem");
    sKeyFile = folder.sFile("relay.key");
    writeCertificate(sCrtFile, sKeyFile);
    ssl_msg_port = 9740;
    EXPECT_EQ(ListenOutcome::kListening, openTlsListener());
    EXPECT_EQ(9740, nLocalPort(ssl_listen_sockfd));
    EXPECT_NE(0, nOption(ssl_listen_sockfd, SOL_SOCKET, SO_REUSEADDR));
    EXPECT_EQ(0, nOption(ssl_listen_sockfd, IPPROTO_TCP, TCP_NODELAY));

    const Peer first(dup(ssl_listen_sockfd));
    resetListenersForTest();
    exitRequested = 1;
    EXPECT_EQ(ListenOutcome::kExitRequested, openTlsListener());
    EXPECT_EQ("Error: Couldn't bind SSL server: Address already in use\n", loggedLines().back());
}

TEST_F(Listeners, ABadCertificateEndsTheTlsListener) {
    sCrtFile = "nowhere.pem";
    ssl_msg_port = 9740;
    EXPECT_EQ(ListenOutcome::kFailed, openTlsListener());
    EXPECT_EQ(1U, nLoggedContaining("SSL certificate load error: "));
}

TEST_F(Listeners, TheListenersAreWatchedAndNonBlocking) {
    connect_listen_sockfd = nOpenLoopbackListener();
    ssl_listen_sockfd = nOpenLoopbackListener();
    fcntl(connect_listen_sockfd, F_SETFL, 0);
    watchListeners();
    EXPECT_NE(0, fcntl(connect_listen_sockfd, F_GETFL) & O_NONBLOCK);
    const Peer first(nConnectLoopback(nLocalPort(connect_listen_sockfd)));
    const Peer second(nConnectLoopback(nLocalPort(ssl_listen_sockfd)));
    ASSERT_TRUE(bWaitReadable(connect_listen_sockfd) && bWaitReadable(ssl_listen_sockfd));
    EXPECT_EQ(2, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0));
}

TEST_F(Listeners, EachProgramHasAnAudioSocketWithLargeBuffers) {
    EXPECT_TRUE(bOpenAudioSockets());
    for (int i = 0; i < kAudioPrograms; ++i) {
        EXPECT_EQ(6900 + 2 * i, nLocalPort(udp_listen_sockfd[i]));
        EXPECT_EQ(SOCK_DGRAM, nOption(udp_listen_sockfd[i], SOL_SOCKET, SO_TYPE));
    }
    EXPECT_EQ(6U, nLoggedContaining("Increased send buffer size to "));
    EXPECT_EQ(12U, nLoggedContaining(" (of 2097152 requested) on socket fd "));
    EXPECT_THAT(udp_fec1_sockfd, Each(-1));
    EXPECT_THAT(udp_fec2_sockfd, Each(-1));
}

TEST_F(Listeners, ABusyAudioPortEndsTheStart) {
    const Peer occupier = occupyUdp(6904);
    EXPECT_FALSE(bOpenAudioSockets());
    EXPECT_EQ("Error: bind udp failed. Address already in use. relayserver quitting.\n",
              loggedLines().back());
}

TEST_F(Listeners, FecHasTwoSocketsPerProgram) {
    bFecEnable = true;
    EXPECT_TRUE(bOpenAudioSockets());
    for (int i = 0; i < kAudioPrograms; ++i) {
        EXPECT_EQ(7000 + 2 * i, nLocalPort(udp_fec1_sockfd[i]));
        EXPECT_EQ(7100 + 2 * i, nLocalPort(udp_fec2_sockfd[i]));
    }
    EXPECT_TRUE(bFecEnable);
    EXPECT_EQ(6U, nLogged("INFO: FEC sockets set correctly\n"));
}

TEST_F(Listeners, AFecSocketThatCannotBindTurnsFecOffForAllPrograms) {
    const Peer occupier = occupyUdp(7004);  // the first companion of the third program
    bFecEnable = true;
    EXPECT_TRUE(bOpenAudioSockets());
    EXPECT_FALSE(bFecEnable);
    EXPECT_EQ(1U, nLogged("WARNING: could not set up udp FEC socket: Address already in use\n"));
    EXPECT_EQ(2U, nLogged("INFO: FEC sockets set correctly\n"));
    for (int i = 2; i < kAudioPrograms; ++i) {
        EXPECT_EQ(-1, udp_fec1_sockfd[i]);
        EXPECT_EQ(-1, udp_fec2_sockfd[i]);
        EXPECT_NE(-1, udp_listen_sockfd[i]) << "audio goes on";
    }
}

TEST_F(Listeners, ASecondFecSocketThatCannotBindTakesTheFirstWithIt) {
    const Peer occupier = occupyUdp(7100);
    bFecEnable = true;
    EXPECT_TRUE(bOpenAudioSockets());
    EXPECT_FALSE(bFecEnable);
    EXPECT_EQ(1U, nLogged("WARNING: could not set up udp  FEC 2 socket: Address already in use\n"));
    EXPECT_THAT(udp_fec1_sockfd, Each(-1));
    EXPECT_THAT(udp_fec2_sockfd, Each(-1));
}

TEST_F(Listeners, FecPortsWrapInTheirSixteenBits) {
    setRtpPorts(65400);
    bFecEnable = true;
    EXPECT_TRUE(bOpenAudioSockets());
    if (bFecEnable) {
        EXPECT_EQ(74, nLocalPort(udp_fec2_sockfd[5]));
    } else {  // low ports need privileges
        EXPECT_EQ(1U, nLogged("WARNING: could not set up udp  FEC 2 socket: Permission denied\n"));
    }
}

TEST_F(Listeners, ClosingLeavesTheFecSockets) {
    bFecEnable = true;
    EXPECT_EQ(ListenOutcome::kListening, openPlainListener());
    EXPECT_TRUE(bOpenAudioSockets());
    closeListeners();
    EXPECT_EQ(-1, fcntl(connect_listen_sockfd, F_GETFD));
    for (int i = 0; i < kAudioPrograms; ++i) {
        EXPECT_EQ(-1, fcntl(udp_listen_sockfd[i], F_GETFD));
        EXPECT_NE(-1, fcntl(udp_fec1_sockfd[i], F_GETFD));
    }
    connect_listen_sockfd = 0;  // closed already
    std::fill_n(udp_listen_sockfd, kAudioPrograms, -1);
}

}  // namespace
