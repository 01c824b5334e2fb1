#include "relayserver/loop/link_timers.h"

#include "base/clock.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/settings.h"
#include "relayserver/settings/timers.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

namespace {

using testing::IsEmpty;

constexpr const char* kRetrying = "auto retrying connect to connection server\n";
constexpr const char* kHibernating =
    "Haven't been able to reach connection server for 60 seconds, dropping clients and hibernating "
    "accepting new ones until connection made\n";

class LinkTimers : public EngineTest {
  protected:
    LinkTimers() {
        // Names that are no addresses and need no resolver: attempts end at once.
        serverQ.push("");
        serverQ.push(" ");
    }

    /// Lets `nSecs` pass and runs the timers.
    static void passAfter(std::time_t nSecs) {
        advanceClockForTest(nSecs);
        lookAfterLink(nowSecs());
    }
    static std::string sHeartbeat() {
        Orvex::HeartbeatNetMessage hbnm;
        return std::string(hbnm.frame());
    }
};

TEST_F(LinkTimers, ALinkSilentForFifteenSecondsIsKept) {
    const Peer server = openLink();
    passAfter(15);
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
    EXPECT_EQ(0U, nLoggedContaining("abandoning"));
}

TEST_F(LinkTimers, ALinkSilentForSixteenSecondsReconnectsToTheSameServer) {
    const Peer server = openLink();
    passAfter(16);
    EXPECT_EQ("abandoning connection with connserver - idle for 16 seconds\n",
              loggedLines().front());
    EXPECT_EQ("Lost connection to CS!\n", loggedLines().at(1));
    EXPECT_TRUE(server.bClosedByRelay());
    EXPECT_EQ("", serverQ.front());
    EXPECT_EQ(kNow + 16, ttLastCSConnectAttempt) << "a fresh attempt";
    EXPECT_EQ("", server.sReceived()) << "no heartbeat in the same pass";
}

TEST_F(LinkTimers, AHungAttemptMovesToTheNextServer) {
    const Peer server = openLink();
    nConnectionStage = WAITING_FOR_CHALLENGE;
    passAfter(16);
    EXPECT_EQ(" ", serverQ.front());
    EXPECT_EQ(1U, nLogged("abandoning connection with connserver - idle for 16 seconds\n"));
    EXPECT_EQ(kNow + 16, ttLastCSConnectAttempt);
}

TEST_F(LinkTimers, AnAttemptMayHangForFifteenSecondsAtAnyStage) {
    const Peer server = openLink();
    for (const connection_stage_t stage :
         {WAITING_FOR_CONNECT, SSL_HANDSHAKE, WAITING_FOR_CHALLENGE, WAITING_FOR_LOGIN_RESPONSE}) {
        nConnectionStage = stage;
        lookAfterLink(kNow + 15);
        EXPECT_EQ(stage, nConnectionStage);
    }
    EXPECT_EQ("", serverQ.front());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(LinkTimers, AConnectThatHangsIsCalledTimedOut) {
    const Peer server = openLink();
    nConnectionStage = WAITING_FOR_CONNECT;
    passAfter(16);
    EXPECT_EQ("Connection attempt timed out to CS!\n", loggedLines().at(1));
    EXPECT_EQ(" ", serverQ.front());
}

TEST_F(LinkTimers, TheLaterOfMessageAndAttemptCounts) {
    const Peer server = openLink();
    ttLastConnServMsg = kNow - 100;
    passAfter(15);
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
    ttLastConnServMsg = kNow + 10;
    ttLastCSConnectAttempt = kNow - 100;
    passAfter(10);  // 15 s after the message
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
    passAfter(2);
    EXPECT_EQ(1U, nLogged("abandoning connection with connserver - idle for 17 seconds\n"));
}

TEST_F(LinkTimers, ALivingLinkGetsAHeartbeatAfterMoreThanThreeSeconds) {
    const Peer server = openLink();
    passAfter(3);
    EXPECT_EQ("", server.sReceived());
    passAfter(1);
    EXPECT_EQ(sHeartbeat(), server.sReceived());
    EXPECT_EQ(kNow + 4, tLastHeartbeat);
    passAfter(3);
    EXPECT_EQ("", server.sReceived());
    passAfter(1);
    EXPECT_EQ(sHeartbeat(), server.sReceived());
}

TEST_F(LinkTimers, AnUnfinishedLinkGetsNoHeartbeat) {
    const Peer server = openLink();
    nConnectionStage = WAITING_FOR_LOGIN_RESPONSE;
    passAfter(10);
    EXPECT_EQ("", server.sReceived());
    EXPECT_TRUE(csForwardQueue.empty());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(LinkTimers, WithoutALinkAnAttemptIsMadeAfterTheRetryTime) {
    connectRetry_secs = 5;
    passAfter(4);
    EXPECT_THAT(loggedLines(), IsEmpty());
    passAfter(1);
    EXPECT_EQ(kRetrying, loggedLines().front());
    EXPECT_EQ(kNow + 5, ttLastCSConnectAttempt);
}

TEST_F(LinkTimers, AttemptsAreOneSecondApartAtLeast) {
    passAfter(0);
    EXPECT_THAT(loggedLines(), IsEmpty());
    passAfter(1);
    EXPECT_EQ(1U, nLogged(kRetrying));
}

TEST_F(LinkTimers, AFailedAttemptIsRepeated) {
    passAfter(4);
    passAfter(4);
    EXPECT_EQ(2U, nLogged(kRetrying));
}

TEST_F(LinkTimers, WithoutALimitTheRelayNeverHibernates) {
    const Peer peer = addAuthClient(7);
    passAfter(1000000);
    EXPECT_TRUE(bAccepting);
    EXPECT_TRUE(bIsAdmitted(7));
    EXPECT_EQ(kRetrying, loggedLines().front());
}

TEST_F(LinkTimers, AtTheLimitTheRelayHibernates) {
    nMaxTimeAwayFromCS = 60;
    const Peer peer = addAuthClient(7);
    const Peer loose = addLooseClient();
    Orvex::HeartbeatNetMessage hbnm;
    EXPECT_EQ(0, ForwardToCS(hbnm));
    passAfter(59);
    EXPECT_TRUE(bAccepting);
    EXPECT_TRUE(bIsAdmitted(7));
    loggedLines().clear();
    passAfter(1);
    const std::vector<std::string> inOrder = {kHibernating,
                                              "Mopping up CS! Client connections being cancelled\n",
                                              "Cancelled 2 client connections\n", kRetrying};
    EXPECT_EQ(inOrder, partsInLogOrder(inOrder)) << "attempts go on";
    EXPECT_FALSE(bAccepting);
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_TRUE(loose.bClosedByRelay());
    EXPECT_TRUE(csForwardQueue.empty());
}

TEST_F(LinkTimers, AHibernatingRelayOnlyRetries) {
    nMaxTimeAwayFromCS = 60;
    passAfter(60);
    loggedLines().clear();
    passAfter(4);
    EXPECT_EQ(0U, nLogged(kHibernating));
    EXPECT_EQ(kRetrying, loggedLines().front());
    EXPECT_FALSE(bAccepting);
}

TEST_F(LinkTimers, OnlyTheLastMessageOfTheServerCountsForTheLimit) {
    nMaxTimeAwayFromCS = 60;
    advanceClockForTest(100);
    ttLastConnServMsg = nowSecs() - 10;
    lookAfterLink(nowSecs());
    EXPECT_TRUE(bAccepting);
}

}  // namespace
