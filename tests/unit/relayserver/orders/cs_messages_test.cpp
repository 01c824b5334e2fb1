#include <sys/socket.h>

#include "base/clock.h"
#include "genner/output/ChallengeNetMessage.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "genner/output/LogOutNetMessage.h"
#include "genner/output/PremiumFeatureResponseNetMessage.h"
#include "genner/output/RoutingUpdateNetMessage.h"
#include "relayserver/clients/video_gate.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/orders/link_events.h"
#include "relayserver/orders/link_messages.h"
#include "relayserver/routes/RoutingCache.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/settings/settings.h"
#include "relayserver/sockets/epoll_set.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/cslink/test_keys.h"
#include "tests/unit/relayserver/engine_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class CsMessages : public EngineTest {
  protected:
    CsMessages() : server(openLink()) {
        serverQ.emplace("first");
        serverQ.emplace("second");
    }

    static void handleEvent(unsigned nEvents) {
        epoll_event epe{};
        epe.events = nEvents;
        epe.data.fd = connserv_sockfd;
        onLinkEvent(epe);
    }

    /// The server has sent these messages; the relay notices.
    void receive(const std::vector<std::string>& images) const {
        for (const std::string& sMessage : images) {
            server.sendBytes(sFrame(sMessage));
        }
        handleEvent(EPOLLIN);
    }

    static std::string sOf(Orvex::NetMessage&& nmMessage) {
        return std::string(nmMessage.frame().substr(1));
    }

    static std::string sPermission(long lCode) {
        return sOf(Orvex::PremiumFeatureResponseNetMessage(7, 8, 65, Orvex::ReturnCode(lCode)));
    }

    static std::string sDisconnect(unsigned nFrom) {
        return sOf(Orvex::RoutingUpdateNetMessage(Orvex::RequestCode(1), nFrom, 0, 128));
    }

    const Peer server;
};

TEST_F(CsMessages, EveryMessageRenewsTheTime) {
    advanceClockForTest(9);
    receive({sOf(Orvex::HeartbeatNetMessage())});
    EXPECT_EQ(kNow + 9, ttLastConnServMsg);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(CsMessages, ARoutingUpdateGoesToTheRouteStore) {
    receive({sDisconnect(7)});
    ASSERT_EQ(2U, executedStatements().size());
    EXPECT_EQ("DELETE FROM iopatch WHERE clientfrom='7' AND msgclass='128'",
              executedStatements()[0]);
}

TEST_F(CsMessages, AVideoGrantIsStored) {
    receive({sPermission(0)});
    EXPECT_THAT(loggedLines(), ElementsAre("Video link permissions granted for 7 to 8\n"));
    EXPECT_EQ(2, videoPermissions.getCode(7, 8));
}

TEST_F(CsMessages, AVideoDenialIsStored) {
    videoPermissions.Grant(7, 8);
    receive({sPermission(2)});
    EXPECT_THAT(loggedLines(), ElementsAre("Video link permissions denied for 7 to 8\n"));
    EXPECT_EQ(1, videoPermissions.getCode(7, 8));
}

TEST_F(CsMessages, ALogOutTakesTheLinkDownAndKeepsTheClients) {
    const Peer client = addAuthClient(8);
    receive({sOf(Orvex::LogOutNetMessage())});
    EXPECT_THAT(loggedLines(),
                ElementsAre("logged out by connserver\n", "Lost connection to CS!\n"));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ("first", serverQ.front());
    EXPECT_TRUE(bIsAdmitted(8));
}

TEST_F(CsMessages, AMalformedSenderIsLoggedAndTheNextMessageHandled) {
    std::string sNegative = sDisconnect(7);
    sNegative[4] = '\xFF';
    receive({sNegative, sDisconnect(7).substr(0, 7), sDisconnect(9)});
    EXPECT_EQ(1U, nLogged("Connserver message with invalid sender id string and len " +
                          std::to_string(sNegative.size()) + " received, ignoring message\n"));
    EXPECT_EQ(1U, nLogged("Connserver message with invalid sender id string and len 7 received, "
                          "ignoring message\n"));
    EXPECT_EQ(2U, executedStatements().size());
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
}

TEST_F(CsMessages, OtherMessagesGoToTheClientThatTheyName) {
    const Peer client = addAuthClient(8);
    Tessel_Routing::RoutingCache::Instance()->Add(Tessel_Routing::RouteEntry(7, 128, {9}));
    const std::string sChat = sImage(3, 7, 8, "ab");
    const std::string sStatus = sImage(232, 7, 8, "ab");
    receive({sChat, sStatus, sImage(3, 7, 4711, "ab")});
    EXPECT_THAT(client.images(), ElementsAre(sChat, sStatus));
    EXPECT_THAT(server.images(), IsEmpty());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(CsMessages, AClientThatTakesNothingIsLostWithoutTheLink) {
    const Peer client = addAuthClient(8);
    client.stopReading();
    receive({sImage(3, 7, 8, "ab")});
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
    EXPECT_EQ(1U, server.images().size());
}

TEST_F(CsMessages, WhatWaitedIsSentAfterTheMessagesOfARead) {
    const std::string sWaiting = sImage(232, 7, 0, "ab");
    csForwardQueue.push(
        std::make_shared<Orvex::NetMessage>(sWaiting.data(), static_cast<int>(sWaiting.size())));
    receive({sOf(Orvex::HeartbeatNetMessage())});
    EXPECT_THAT(server.images(), ElementsAre(sWaiting));
    EXPECT_THAT(loggedLines(),
                ElementsAre("TRACE: have collected 1 messages to de-queue to server\n",
                            "TRACE: cleared CS queue to 0 messages\n"));
}

TEST_F(CsMessages, WhatWaitsIsKeptWhenTheReadEndsTheLink) {
    csForwardQueue.push(std::make_shared<Orvex::NetMessage>(232));
    receive({sOf(Orvex::LogOutNetMessage())});
    EXPECT_EQ(1U, csForwardQueue.size());
    EXPECT_EQ(0U, nLoggedContaining("TRACE"));
}

TEST_F(CsMessages, ABreakIsReportedWithTheLastMessageSent) {
    const Peer client = addAuthClient(8);
    Orvex::HeartbeatNetMessage hbnm;
    EXPECT_LT(0, ForwardToCS(hbnm));
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_WR));
    receive({});
    EXPECT_THAT(loggedLines(),
                ElementsAre("WARNING: broken socket to connserver : read returned EOF\n",
                            "Last message forwarded to CS before break: \n",
                            "^L[00][00][00][00][00][00][00][00]\n", "Lost connection to CS!\n"));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ("first", serverQ.front()) << "an established link does not cost the server its turn";
    EXPECT_TRUE(bIsAdmitted(8));
}

TEST_F(CsMessages, WhatArrivedBeforeABreakStillCounts) {
    server.sendBytes(sFrame(sDisconnect(7)));
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_WR));
    receive({});
    EXPECT_EQ(2U, executedStatements().size());
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
}

TEST_F(CsMessages, ALogOutBeforeABreakLosesTheLinkOnce) {
    server.sendBytes(sFrame(sOf(Orvex::LogOutNetMessage())));
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_WR));
    receive({});
    EXPECT_EQ(1U, nLogged("Lost connection to CS!\n"));
}

TEST_F(CsMessages, ReadsTheLastMessagesOfALinkThatHasFailed) {
    for (unsigned nFrom = 1; nFrom <= 100; ++nFrom) {
        server.sendBytes(sFrame(sDisconnect(nFrom)));
    }
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_WR));
    readLastServerMessages();
    EXPECT_EQ(200U, executedStatements().size());
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage) << "the caller ends the link";
}

TEST_F(CsMessages, ReadsNoLastMessagesOfALinkThatWasNeverUp) {
    server.sendBytes(sFrame(sDisconnect(7)));
    nConnectionStage = WAITING_FOR_CONNECT;
    readLastServerMessages();
    EXPECT_THAT(executedStatements(), IsEmpty());
}

TEST_F(CsMessages, ALogOutAmongTheLastMessagesEndsThem) {
    server.sendBytes(sFrame(sOf(Orvex::LogOutNetMessage())) + sFrame(sDisconnect(7)));
    readLastServerMessages();
    EXPECT_THAT(executedStatements(), IsEmpty());
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
}

TEST_F(CsMessages, AFailureBeforeTheLoginIsLoggedAndTheRetryThrottled) {
    nConnectionStage = WAITING_FOR_CHALLENGE;
    receive({sDisconnect(7)});
    ASSERT_LE(2U, loggedLines().size());
    EXPECT_EQ("failure in connecttoserver, disconnecting\n", *(loggedLines().end() - 2));
    EXPECT_EQ("Throttling reconnect attempt, must wait at least 1 seconds\n", loggedLines().back());
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
}

TEST_F(CsMessages, AFailureBeforeTheLoginIsRetriedAtOnceWhenTheLastAttemptIsOldEnough) {
    nConnectionStage = WAITING_FOR_CHALLENGE;
    serverQ = {};
    advanceClockForTest(1);
    receive({sDisconnect(7)});
    EXPECT_EQ(1U, nLogged("failure in connecttoserver, disconnecting\n"));
    EXPECT_EQ(1U, nLoggedContaining("initialized connection server reconnect timer at: "));
}

TEST_F(CsMessages, AFailureWhileConnectingHasItsOwnText) {
    bCS_ssl = true;
    server.stopReading();
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_RDWR));
    nConnectionStage = WAITING_FOR_CONNECT;
    handleEvent(EPOLLOUT);
    EXPECT_EQ(1U, nLogged("SSL handshake with CS failed, library trace above\n"));
    EXPECT_EQ(1U, nLogged("failure in connecttoserver connect pending, disconnecting\n"));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ("second", serverQ.front());
}

TEST_F(CsMessages, AChallengeOfTheEstablishedLinkIsAnswered) {
    rsaPublicKey = testRsaKey();
    bLoginContinue = true;
    receive({sOf(Orvex::ChallengeNetMessage(5))});
    EXPECT_EQ(WAITING_FOR_LOGIN_RESPONSE, nConnectionStage);
    EXPECT_EQ(5, openLogin(server.images()[0]).GetLoginNumber());
    rsaPublicKey = nullptr;
}

}  // namespace
