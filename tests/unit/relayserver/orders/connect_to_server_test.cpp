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
#include "tests/unit/relayserver/orders/connect_fixture.h"

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

namespace {

using ConnectToServerTest = ConnectTest;

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
    relay.sendBytes(sFrameOf(Orvex::ResponseNetMessage(0, rcUnauthorized)));
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
