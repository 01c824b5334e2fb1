#include "relayserver/orders/connect_to_server.h"

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

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

class ConnectToServerTest : public EngineTest {
  protected:
    ConnectToServerTest() { rsaPublicKey = testRsaKey(); }
    ~ConnectToServerTest() override {
        rsaPublicKey = nullptr;
        exitRequested = 0;
    }

    static std::string sFrameOf(Orvex::NetMessage&& nmMessage) {
        return std::string(nmMessage.frame());
    }
    static std::string sChallenge() { return sFrameOf(Orvex::ChallengeNetMessage(4711)); }
    static std::string sOk() {
        return sFrameOf(Orvex::ResponseNetMessage(99, Orvex::ReturnCode(0)));
    }

    /// The server in use, and another behind it.
    static void useServer(const std::string& sServer) {
        serverQ = {};
        serverQ.push(sServer);
        serverQ.emplace("second");
    }

    /// Waits for the next event of the link, at most `nMillis`; false when there is none.
    static bool bNextEvent(epoll_event& epe, int nMillis = 5000) {
        const int nReady = epoll_wait(ep_fd, ep_events, kMaxEpollEvents, nMillis);
        for (int i = 0; i < nReady; ++i) {
            if (nDescriptorOf(ep_events[i]) == connserv_sockfd) {
                epe = ep_events[i];
                return true;
            }
        }
        return false;
    }

    /// Handles the next event of the link; its result, or -2 when there is no event.
    static int nStep() {
        epoll_event epe{};
        return bNextEvent(epe) ? ConnectToServer(false, &epe) : -2;
    }

    /// Starts an attempt at `rServer` and brings it to the wait for the challenge.
    static Peer connectTo(const ScriptedServer& rServer) {
        useServer(rServer.sAddress());
        EXPECT_EQ(1, ConnectToServer(false, nullptr));
        EXPECT_EQ(3, nStep());
        return rServer.acceptRelay();
    }

    static bool bIsLinkDown() {
        return nConnectionStage == CONNECTION_IDLE && connserv_sockfd == 0;
    }
};

// ---- starting an attempt

TEST_F(ConnectToServerTest, StartsAnAttemptWithoutWaitingForIt) {
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

TEST_F(ConnectToServerTest, AClockThatWasSetBackDoesNotStopTheTimers) {
    tLastHeartbeat = kNow + 1000;
    tLastHeartbeatBurst = kNow + 1000;
    serverQ = {};
    EXPECT_EQ(-1, ConnectToServer(false, nullptr));
    EXPECT_EQ(kNow, tLastHeartbeat);
    EXPECT_EQ(kNow, tLastHeartbeatBurst);
}

TEST_F(ConnectToServerTest, WithoutAnEventAnAttemptUnderWayIsLeftAlone) {
    const ScriptedServer server;
    useServer(server.sAddress());
    EXPECT_EQ(1, ConnectToServer(false, nullptr));
    const int fd = connserv_sockfd;
    EXPECT_EQ(1, ConnectToServer(false, nullptr));
    EXPECT_EQ(fd, connserv_sockfd);
}

TEST_F(ConnectToServerTest, ANameThatDoesNotResolveKeepsItsTurn) {
    useServer(std::string(300, 'a'));
    const std::string sServer = serverQ.front();
    EXPECT_EQ(-1, ConnectToServer(false, nullptr));
    EXPECT_EQ("gethostbyname failed: invalid server.\n", loggedLines().back());
    EXPECT_EQ(sServer, serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

TEST_F(ConnectToServerTest, ABindAddressThatCannotBeUsedKeepsTheServersTurn) {
    const ScriptedServer server;
    useServer(server.sAddress());
    sBindAddr = "bogus";
    EXPECT_EQ(-1, ConnectToServer(false, nullptr));
    EXPECT_EQ("ERROR: Invalid bind address: bogus\n", loggedLines().back());
    EXPECT_EQ(server.sAddress(), serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

TEST_F(ConnectToServerTest, ConnectsFromTheConfiguredAddress) {
    const ScriptedServer server;
    sBindAddr = "127.0.0.9";
    const Peer relay = connectTo(server);
    sockaddr_in siRelay{};
    socklen_t nLen = sizeof siRelay;
    EXPECT_EQ(0, getpeername(relay.fd(), reinterpret_cast<sockaddr*>(&siRelay), &nLen));
    EXPECT_EQ("127.0.0.9", sDottedAddress(siRelay));
}

TEST_F(ConnectToServerTest, AConnectThatFailsAtOnceCostsTheServerItsTurn) {
    useServer("255.255.255.255");
    EXPECT_EQ(-1, ConnectToServer(false, nullptr));
    EXPECT_EQ("Error initiating connect to server 255.255.255.255\n", loggedLines().back());
    EXPECT_EQ("second", serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

// ---- events, without TLS

TEST_F(ConnectToServerTest, AWritableSocketIsConnected) {
    const ScriptedServer server;
    const Peer relay = connectTo(server);
    EXPECT_EQ(WAITING_FOR_CHALLENGE, nConnectionStage);
    EXPECT_EQ("Finished non-blocking connect to connserver\n", loggedLines().back());
    int nOn = 0;
    socklen_t nLen = sizeof nOn;
    EXPECT_EQ(0, getsockopt(connserv_sockfd, IPPROTO_TCP, TCP_NODELAY, &nOn, &nLen));
    EXPECT_NE(0, nOn);
    epoll_event epe{};
    EXPECT_FALSE(bNextEvent(epe, 0)) << "watched for reading only";
}

TEST_F(ConnectToServerTest, LogsInStepByStep) {
    const ScriptedServer server;
    const Peer relay = connectTo(server);
    relay.sendBytes(sChallenge());
    EXPECT_EQ(4, nStep());
    EXPECT_EQ(4711, openLogin(waitForImages(relay, 1)[0]).GetLoginNumber());
    relay.sendBytes(sOk());
    EXPECT_EQ(353, nStep());
    EXPECT_EQ('\xE1', waitForImages(relay, 1)[0][0]);
    EXPECT_EQ(server.sAddress(), sLastServer);
    EXPECT_EQ(99U, nSenderID);
}

TEST_F(ConnectToServerTest, AMessageInPiecesIsHandledWhenItIsWhole) {
    const ScriptedServer server;
    const Peer relay = connectTo(server);
    const std::string sWhole = sChallenge();
    for (size_t i = 0; i + 1 < sWhole.size(); ++i) {
        relay.sendBytes(sWhole.substr(i, 1));
        EXPECT_EQ(3, nStep());
    }
    relay.sendBytes(sWhole.substr(sWhole.size() - 1));
    EXPECT_EQ(4, nStep());
}

TEST_F(ConnectToServerTest, AServerThatClosesDuringTheLoginLosesItsTurn) {
    const ScriptedServer server;
    Peer relay = connectTo(server);
    relay.close();
    loggedLines().clear();
    EXPECT_EQ(-1, nStep());
    EXPECT_THAT(loggedLines(), ElementsAre("WARNING: broken connection to connserver during "
                                           "initial connect stages : read returned EOF\n",
                                           "Lost connection to CS!\n"));
    EXPECT_EQ("second", serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

TEST_F(ConnectToServerTest, WhatAServerSendsBeforeItClosesStillCounts) {
    const ScriptedServer server;
    Peer relay = connectTo(server);
    nConnectionStage = WAITING_FOR_LOGIN_RESPONSE;
    relay.sendBytes(sFrameOf(Orvex::ResponseNetMessage(0, Orvex::ReturnCode(2))));
    relay.close();
    EXPECT_EQ(-1, nStep());
    EXPECT_EQ(1U, nLogged("Server response: UNAUTHORIZED.\n"));
    EXPECT_EQ(0U, nLoggedContaining("broken connection"));
    EXPECT_EQ(server.sAddress(), serverQ.front());
}

TEST_F(ConnectToServerTest, AWritableSocketInAnotherStageIsWatchedForReadingAgain) {
    const ScriptedServer server;
    const Peer relay = connectTo(server);
    removeFromEpoll(connserv_sockfd);
    addToEpollForWrite(connserv_sockfd);
    EXPECT_EQ(3, nStep());
    EXPECT_EQ(
        "WARNING: CS socket signaling ready to write from unexpected state - cancelling this "
        "epoll notification\n",
        loggedLines().back());
    epoll_event epe{};
    EXPECT_FALSE(bNextEvent(epe, 0));
    relay.sendBytes(sChallenge());
    EXPECT_EQ(4, nStep());
}

TEST_F(ConnectToServerTest, AnEventThatIsNeitherReadableNorWritableLosesTheLink) {
    const ScriptedServer server;
    const Peer relay = connectTo(server);
    loggedLines().clear();
    epoll_event epe{};
    epe.events = EPOLLHUP;
    epe.data.fd = connserv_sockfd;
    EXPECT_EQ(-1, ConnectToServer(false, &epe));
    EXPECT_THAT(loggedLines(), ElementsAre("Epoll signaling error on CS connection\n",
                                           "Lost connection to CS!\n"));
    EXPECT_EQ(server.sAddress(), serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

// ---- TLS

class ConnectToTlsServer : public ConnectToServerTest {
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
    sAll += sFrameOf(Orvex::RoutingUpdateNetMessage(Orvex::RequestCode(1), 7, 0, 128));
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

// ---- waiting

TEST_F(ConnectToServerTest, WaitsUntilLoggedIn) {
    const ScriptedServer server;
    useServer(server.sAddress());
    const std::string sChallengeFrame = sChallenge();
    const std::string sOkFrame = sOk();
    std::string sLogin;
    std::string sRelayPort;
    std::thread script([&] {
        const Peer relay = server.acceptRelay();
        relay.sendBytes(sChallengeFrame);
        sLogin = waitForImages(relay, 1)[0];
        relay.sendBytes(sOkFrame);
        sRelayPort = waitForImages(relay, 1)[0];
    });
    EXPECT_EQ(353, ConnectToServer(true, nullptr));
    script.join();
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
    EXPECT_EQ(4711, openLogin(sLogin).GetLoginNumber());
    EXPECT_EQ('\xE1', sRelayPort[0]);
}

TEST_F(ConnectToServerTest, ARefusedConnectFailsTheWaitAndCostsTheServerItsTurn) {
    useServer(sOwnLoopbackAddress());
    EXPECT_EQ(-1, ConnectToServer(true, nullptr));
    EXPECT_EQ(1U, nLogged("WARNING: broken connection to connserver during initial connect stages "
                          ": read returned error code 111\n"));
    EXPECT_EQ("second", serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

TEST_F(ConnectToServerTest, AnEventOfAnotherDescriptorFailsTheWait) {
    const ScriptedServer server;
    useServer(server.sAddress());
    EXPECT_EQ(1, ConnectToServer(false, nullptr));
    EXPECT_EQ(3, nStep());
    const Peer other = addAuthClient(8);
    other.sendBytes("x");
    EXPECT_EQ(-1, ConnectToServer(true, nullptr));
    EXPECT_EQ("cs epoll - no new data to operate on!\n", loggedLines().back());
    EXPECT_EQ("second", serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

TEST_F(ConnectToServerTest, FiveSecondsWithoutAnEventFailTheWait) {
    const ScriptedServer server;
    useServer(server.sAddress());
    const auto tpStart = std::chrono::steady_clock::now();
    EXPECT_EQ(-1, ConnectToServer(true, nullptr));
    const auto elapsed = std::chrono::steady_clock::now() - tpStart;
    EXPECT_LE(std::chrono::milliseconds(4900), elapsed);
    EXPECT_GE(std::chrono::milliseconds(8000), elapsed);
    EXPECT_EQ("waiting for login response timed out\n", loggedLines().back());
    EXPECT_EQ("second", serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

TEST_F(ConnectToServerTest, ARequestToEndCutsTheWaitShort) {
    const ScriptedServer server;
    useServer(server.sAddress());
    exitRequested = 1;
    EXPECT_EQ(-1, ConnectToServer(true, nullptr));
    EXPECT_EQ(0U, nLogged("waiting for login response timed out\n"));
    EXPECT_TRUE(bIsLinkDown());
    EXPECT_FALSE(bConnectToFirstServer());
}

TEST_F(ConnectToServerTest, AnEpollFailureFailsTheWait) {
    const ScriptedServer server;
    useServer(server.sAddress());
    EXPECT_EQ(1, ConnectToServer(false, nullptr));
    const int fdSet = ep_fd;
    ep_fd = -1;
    EXPECT_EQ(-1, ConnectToServer(true, nullptr));
    ep_fd = fdSet;
    EXPECT_EQ("Error: epoll failed. Bad file descriptor.\n", loggedLines().back());
    EXPECT_EQ(server.sAddress(), serverQ.front());
    EXPECT_TRUE(bIsLinkDown());
}

TEST_F(ConnectToServerTest, StartUpRetriesUntilAServerLetsItIn) {
    const ScriptedServer server;
    serverQ = {};
    serverQ.emplace("255.255.255.255");
    serverQ.push(server.sAddress());
    const std::string sAnswer = sChallenge() + sOk();
    std::thread script([&] {
        const Peer relay = server.acceptRelay();
        relay.sendBytes(sAnswer);
        (void)waitForImages(relay, 2);
    });
    EXPECT_TRUE(bConnectToFirstServer());
    script.join();
    EXPECT_EQ(1U, nLogged("connection to server failed with code -1...\n"));
    EXPECT_EQ(1U, nLogged("retrying\n"));
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
}

// ---- retrying

TEST_F(ConnectToServerTest, ARetryTooSoonIsThrottled) {
    const ScriptedServer server;
    useServer(server.sAddress());
    connectRetry_secs = 3;
    advanceClockForTest(2);
    reconnectUnlessThrottled();
    EXPECT_THAT(loggedLines(),
                ElementsAre("Throttling reconnect attempt, must wait at least 3 seconds\n"));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    advanceClockForTest(1);
    reconnectUnlessThrottled();
    EXPECT_EQ(WAITING_FOR_CONNECT, nConnectionStage);
}

}  // namespace
