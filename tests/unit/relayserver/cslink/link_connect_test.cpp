#include "relayserver/cslink/link_connect.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <sys/socket.h>

#include <chrono>
#include <ctime>
#include <thread>

#include "base/clock.h"
#include "base/ip_utils.h"
#include "connserver/signal_handling.h"
#include "genner/output/ChallengeNetMessage.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "genner/output/RoutingUpdateNetMessage.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/orders/link_events.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/settings/settings.h"
#include "relayserver/settings/timers.h"
#include "relayserver/sockets/epoll_set.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/cslink/scripted_server.h"
#include "tests/unit/relayserver/cslink/test_keys.h"
#include "tests/unit/relayserver/orders/connect_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

using LinkConnect = ConnectTest;

TEST_F(LinkConnect, StartsAnAttemptWithoutWaitingForIt) {
    const ScriptedServer server;
    useServer(server.sAddress());
    advanceClockForTest(7);
    EXPECT_EQ(1, ConnectToServer(false, nullptr));
    EXPECT_EQ(WAITING_FOR_CONNECT, nConnectionStage);
    EXPECT_EQ(kNow + 7, ttLastCSConnectAttempt);
    const std::time_t ttAttempt = kNow + 7;
    ASSERT_EQ(4U, loggedLines().size());
    EXPECT_EQ(
        std::string("initialized connection server reconnect timer at: ") + std::ctime(&ttAttempt),
        loggedLines()[0]);
    EXPECT_EQ("Using system default interface\n", loggedLines()[1]);
    EXPECT_THAT(loggedLines()[2], testing::HasSubstr("(of 8388608 requested)"));
    EXPECT_EQ("Attempting connection to server " + server.sAddress() + "\n", loggedLines()[3]);
}

TEST_F(LinkConnect, AClockThatWasSetBackDoesNotStopTheTimers) {
    tLastHeartbeat = kNow + 1000;
    tLastHeartbeatBurst = kNow + 1000;
    serverQ = {};
    EXPECT_EQ(-1, ConnectToServer(false, nullptr));
    EXPECT_EQ(kNow, tLastHeartbeat);
    EXPECT_EQ(kNow, tLastHeartbeatBurst);
}

TEST_F(LinkConnect, WithoutAnEventAnAttemptUnderWayIsLeftAlone) {
    const ScriptedServer server;
    useServer(server.sAddress());
    EXPECT_EQ(1, ConnectToServer(false, nullptr));
    const int fd = connserv_sockfd;
    EXPECT_EQ(1, ConnectToServer(false, nullptr));
    EXPECT_EQ(fd, connserv_sockfd);
}

TEST_F(LinkConnect, ANameThatDoesNotResolveKeepsItsTurn) {
    useServer(std::string(300, 'a'));
    const std::string sServer = serverQ.front();
    EXPECT_EQ(-1, ConnectToServer(false, nullptr));
    EXPECT_EQ("gethostbyname failed: invalid server.\n", loggedLines().back());
    EXPECT_EQ(sServer, serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

TEST_F(LinkConnect, ABindAddressThatCannotBeUsedKeepsTheServersTurn) {
    const ScriptedServer server;
    useServer(server.sAddress());
    sBindAddr = "bogus";
    EXPECT_EQ(-1, ConnectToServer(false, nullptr));
    EXPECT_EQ("ERROR: Invalid bind address: bogus\n", loggedLines().back());
    EXPECT_EQ(server.sAddress(), serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

TEST_F(LinkConnect, ConnectsFromTheConfiguredAddress) {
    const ScriptedServer server;
    sBindAddr = "127.0.0.9";
    const Peer relay = connectTo(server);
    sockaddr_in siRelay{};
    socklen_t nLen = sizeof siRelay;
    EXPECT_EQ(0, getpeername(relay.fd(), reinterpret_cast<sockaddr*>(&siRelay), &nLen));
    EXPECT_EQ("127.0.0.9", sDottedAddress(siRelay));
}

TEST_F(LinkConnect, AConnectThatFailsAtOnceCostsTheServerItsTurn) {
    useServer("255.255.255.255");
    EXPECT_EQ(-1, ConnectToServer(false, nullptr));
    EXPECT_EQ("Error initiating connect to server 255.255.255.255\n", loggedLines().back());
    EXPECT_EQ("second", serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

class ConnectToTlsServer : public ConnectTest {
  protected:
    ConnectToTlsServer() : server(true) {
        bCS_ssl = true;
        cs_ssl_port = server.nPort();
        useServer(server.sAddress());
    }

    /// Starts an attempt; the connection as the server sees it.
    [[nodiscard]] Peer startAttempt() const {
        EXPECT_EQ(1, ConnectToServer(false, nullptr));
        EXPECT_EQ(2, nStep());
        return server.acceptRelay();
    }

    /// Steps both sides until the relay waits for the challenge.
    static void shakeHands(TlsEnd& rEnd) {
        bool bServerDone = false;
        for (int nTry = 0; nTry < 100; ++nTry) {
            bServerDone = bServerDone || rEnd.bStepAccept();
            epoll_event epe{};
            if (nConnectionStage == SSL_HANDSHAKE && bNextEvent(epe, 20)) {
                EXPECT_LE(2, ConnectToServer(false, &epe));
            }
            if (bServerDone && nConnectionStage == WAITING_FOR_CHALLENGE) {
                return;
            }
        }
        FAIL() << "the handshake does not end";
    }

    const ScriptedServer server;
};

TEST_F(ConnectToTlsServer, BeginsTheHandshakeWhenConnected) {
    const Peer relay = startAttempt();
    EXPECT_EQ(SSL_HANDSHAKE, nConnectionStage);
    EXPECT_THAT(loggedLines(), Contains("Finished non-blocking connect to connserver\n"));
    EXPECT_EQ("Setting up SSL to connserver, beginning handshake\n", loggedLines().back());
    EXPECT_TRUE(msConnServMsgSock.bUseSSL());
}

TEST_F(ConnectToTlsServer, LogsInThroughTls) {
    const Peer relay = startAttempt();
    TlsEnd end(relay);
    shakeHands(end);
    EXPECT_EQ(1U, nLogged("Completed SSL handshake to connserver\n"));
    end.sendBytes(sChallenge());
    while (nConnectionStage == WAITING_FOR_CHALLENGE) {
        ASSERT_LE(0, nStep());
    }
    ASSERT_TRUE(bWaitForInput(relay));
    const std::string sLogin = end.sReceived();
    ASSERT_EQ(2U + 8U + 256U, sLogin.size());
    EXPECT_EQ(4711, openLogin(sLogin.substr(1)).GetLoginNumber());
    end.sendBytes(sOk());
    EXPECT_EQ(353, nStep());
}

TEST_F(ConnectToTlsServer, AWholeLoginInOneRecordNeedsNoFurtherEvent) {
    const Peer relay = startAttempt();
    TlsEnd end(relay);
    shakeHands(end);
    std::string sAll = sChallenge() + sOk();
    for (int i = 0; i < 600; ++i) {
        sAll += sFrameOf(Orvex::HeartbeatNetMessage());
    }
    sAll += sFrameOf(Orvex::RoutingUpdateNetMessage(rcDisconnect, 7, 0, 128));
    end.sendBytes(sAll);
    while (nConnectionStage != CONNECTION_FINISHED) {
        ASSERT_LE(0, nStep());
    }
    executedStatements().clear();
    for (int nTry = 0; nTry < 100 && executedStatements().empty(); ++nTry) {
        ASSERT_TRUE(bTurnsWaiting()) << "the rest of the record is announced by no event";
        beginTurns();
        epoll_event epe{};
        ASSERT_TRUE(bNextTurn(epe));
        ASSERT_EQ(connserv_sockfd, nDescriptorOf(epe));
        onLinkEvent(epe);
    }
    EXPECT_EQ(2U, executedStatements().size());
}

TEST_F(ConnectToTlsServer, AServerThatSpeaksNoTlsLosesItsTurn) {
    const Peer relay = startAttempt();
    relay.sendBytes("HTTP/1.0 400 Bad Request\r\n\r\n");
    EXPECT_EQ(-1, nStep());
    EXPECT_EQ(1U, nLogged("SSL handshake with CS failed, library callback above\n"));
    EXPECT_EQ(1U, nLoggedContaining("error:"));
    EXPECT_EQ("Lost connection to CS!\n", loggedLines().back());
    EXPECT_EQ("second", serverQ.front());
    EXPECT_EQ(nullptr, connserv_ssl);
    EXPECT_TRUE(bIsLinkDown());
}

TEST_F(ConnectToTlsServer, AServerThatClosesDuringTheHandshakeLosesItsTurn) {
    Peer relay = startAttempt();
    relay.close();
    EXPECT_EQ(-1, nStep());
    EXPECT_EQ(1U, nLogged("SSL handshake with CS failed, library callback above\n"));
    EXPECT_EQ("second", serverQ.front());
}

TEST_F(ConnectToTlsServer, AServerThatEndsTheSessionDuringTheLoginLosesItsTurn) {
    Peer relay = startAttempt();
    {
        TlsEnd end(relay);
        shakeHands(end);
    }
    relay.close();
    int nResult = nStep();
    while (nResult == 3) {
        nResult = nStep();
    }
    EXPECT_EQ(-1, nResult);
    EXPECT_EQ(1U, nLoggedContaining("WARNING: broken connection to connserver during initial "
                                    "connect stages : SSL "));
    EXPECT_EQ("second", serverQ.front());
    EXPECT_EQ(nullptr, connserv_ssl);
}

}  // namespace
