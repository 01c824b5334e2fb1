#include "relayserver/loop/housekeeping.h"

#include <cmath>

#include "base/clock.h"
#include "base/string_format.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "relayserver/archive/archive_pass.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/settings/settings.h"
#include "relayserver/settings/timers.h"
#include "relayserver/sockets/accept_pause.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/loopback.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kDatabaseGone = "PostgreSQL database not connected!\n";
/// A multiple of 10800, and so of 60 and of 4.
constexpr std::time_t kBoundary = 10800 * 157500;

class Housekeeping : public EngineTest {
  protected:
    static void passAt(std::time_t ttNow) {
        setClockForTest(ttNow);
        headOfPass();
        tailOfPass();
    }
    static std::string sHeartbeat() {
        Orvex::HeartbeatNetMessage hbnm;
        return std::string(hbnm.frame());
    }
    static size_t nLoadReports() { return nLoggedContaining("Load reporting: "); }
};

TEST_F(Housekeeping, TimersRunInSecondsDivisibleByFour) {
    const Peer peer = addAuthClient(7);
    for (std::time_t ttNow = kBoundary - 3; ttNow < kBoundary; ++ttNow) {
        passAt(ttNow);
        EXPECT_EQ("", peer.sReceived()) << ttNow;
    }
    authClient(7).SetLastMessageTime(kBoundary);
    passAt(kBoundary);
    EXPECT_EQ(sHeartbeat(), peer.sReceived());
}

TEST_F(Housekeeping, TimersRunOnceInTheirSecond) {
    const Peer peer = addAuthClient(7);
    authClient(7).SetLastMessageTime(kBoundary);
    passAt(kBoundary);
    tLastHeartbeatBurst = 0;
    passAt(kBoundary);
    EXPECT_EQ(sHeartbeat(), peer.sReceived());
}

TEST_F(Housekeeping, AClockSetBackStopsTheTimersForOnePassOnly) {
    const Peer peer = addAuthClient(7);
    authClient(7).SetLastMessageTime(kBoundary);
    passAt(kBoundary);
    (void)peer.sReceived();
    passAt(kBoundary - 400);
    clampTimersToNow(nowSecs());
    EXPECT_EQ("", peer.sReceived());
    passAt(kBoundary - 396);
    EXPECT_EQ(sHeartbeat(), peer.sReceived());
}

TEST_F(Housekeeping, EachPassRemembersItsTime) {
    passAt(kBoundary + 1);
    EXPECT_EQ(kBoundary + 1, ttThisLoop);
    EXPECT_EQ(kBoundary + 1, ttLastLoop);
    setClockForTest(kBoundary + 2);
    headOfPass();
    EXPECT_EQ(kBoundary + 2, ttThisLoop);
    EXPECT_EQ(kBoundary + 1, ttLastLoop);
}

TEST_F(Housekeeping, ATimerThatComesDueDuringAPassUsesThePassesTime) {
    const Peer peer = addAuthClient(7);
    authClient(7).SetLastMessageTime(kBoundary - 15);
    setClockForTest(kBoundary);
    headOfPass();
    setClockForTest(kBoundary + 1);
    tailOfPass();
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(Housekeeping, AClientSilentForSixteenSecondsIsDroppedAtTheNextTick) {
    const Peer peer = addAuthClient(7);
    authClient(7).SetLastMessageTime(kBoundary + 1);
    for (int nSilent = 1; nSilent < 19; ++nSilent) {
        passAt(kBoundary + 1 + nSilent);
        EXPECT_TRUE(bIsAdmitted(7)) << nSilent;
    }
    passAt(kBoundary + 20);
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ(1U, nLoggedContaining("idle for 19 seconds"));
}

TEST_F(Housekeeping, EveryTimerOfTheClientsRuns) {
    const Peer peer = addAuthClient(7);
    const Peer loose = addLooseClient();
    passAt(kBoundary);
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
}

TEST_F(Housekeeping, NoStepOfTheTailRunsBetweenTicks) {
    const Peer handshaking = addHandshaking();
    const Peer loose = addLooseClient();
    const Peer idle = addAuthClient(1);
    for (std::time_t ttNow = kBoundary + 1; ttNow < kBoundary + 4; ++ttNow) {
        passAt(ttNow);
    }
    EXPECT_THAT(loggedLines(), IsEmpty());
    EXPECT_EQ("", idle.sReceived());
    passAt(kBoundary + 4);
    EXPECT_EQ(0, ctSslHandshakingTable.GetSize());
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
    EXPECT_FALSE(bIsAdmitted(1));
}

TEST_F(Housekeeping, OnlyTheBurstAndWhatFollowsWaitForTheHeartbeatPeriod) {
    const Peer handshaking = addHandshaking();
    const Peer loose = addLooseClient();
    const Peer idle = addAuthClient(1);
    const Peer talkative = addAuthClient(2);
    authClient(2).SetLastMessageTime(kBoundary);
    authClient(2).IncrementTcpInputByteCounter(6000001);
    tLastHeartbeatBurst = kBoundary - 3;
    passAt(kBoundary);
    EXPECT_EQ(1U, nLoggedContaining("auto retrying connect"));
    EXPECT_EQ(0, ctSslHandshakingTable.GetSize());
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
    EXPECT_FALSE(bIsAdmitted(1));
    ASSERT_TRUE(bIsAdmitted(2));
    EXPECT_EQ(6000001U, authClient(2).GetTcpInputByteCounter());
    EXPECT_EQ(0U, nLoadReports());
}

TEST_F(Housekeeping, HeartbeatsAndLoadReportWaitForMoreThanThreeSeconds) {
    const Peer peer = addAuthClient(7);
    authClient(7).SetLastMessageTime(kBoundary);
    tLastHeartbeatBurst = kBoundary - 3;
    passAt(kBoundary);
    EXPECT_EQ("", peer.sReceived());
    EXPECT_EQ(0U, nLoadReports());
    EXPECT_EQ(kBoundary - 3, tLastHeartbeatBurst);
}

TEST_F(Housekeeping, ABurstIsRemembered) {
    tLastHeartbeatBurst = kBoundary - 4;
    passAt(kBoundary);
    EXPECT_EQ(kBoundary, tLastHeartbeatBurst);
}

TEST_F(Housekeeping, TheLoadIsReportedOnceAMinute) {
    epoll_load_avg_1 = 2;
    epoll_load_avg_1K = 3.25;
    epoll_load_avg_1M = 0.04;
    passAt(kBoundary);
    EXPECT_EQ(1U, nLogged("Load reporting: epoll descriptors active per loop : 2 / 3.2 / 0.0 (1 "
                          "loop / 1K avg / 1M avg)\n"));
    for (std::time_t ttNow = kBoundary + 1; ttNow < kBoundary + 60; ++ttNow) {
        passAt(ttNow);
    }
    EXPECT_EQ(1U, nLoadReports());
    passAt(kBoundary + 60);
    EXPECT_EQ(2U, nLoadReports());
}

TEST_F(Housekeeping, TheLoadAveragesRun) {
    noteLoad(1000);
    EXPECT_DOUBLE_EQ(1000, epoll_load_avg_1);
    EXPECT_DOUBLE_EQ(1, epoll_load_avg_1K);
    EXPECT_DOUBLE_EQ(0.001, epoll_load_avg_1M);
    noteLoad(0);
    EXPECT_DOUBLE_EQ(0, epoll_load_avg_1);
    EXPECT_DOUBLE_EQ(0.999, epoll_load_avg_1K);
    EXPECT_DOUBLE_EQ(0.001 * 999999 / 1000000, epoll_load_avg_1M);
}

TEST_F(Housekeeping, TheLoadAveragesSettleAtAConstantLoad) {
    for (int i = 0; i < 20000; ++i) {
        noteLoad(5);
    }
    EXPECT_NEAR(5, epoll_load_avg_1K, 1e-6);
    EXPECT_NEAR(5 * (1 - std::exp(-0.02)), epoll_load_avg_1M, 1e-4);
}

TEST_F(Housekeeping, ADeadDatabaseIsLoggedAndReset) {
    setDatabaseHealthy(false);
    passAt(kBoundary + 1);
    EXPECT_THAT(loggedLines(), ElementsAre(kDatabaseGone));
    EXPECT_EQ(1, nDatabaseResets());
}

TEST_F(Housekeeping, ADeadDatabaseIsTriedOnceASecond) {
    setDatabaseHealthy(false);
    passAt(kBoundary + 1);
    passAt(kBoundary + 1);
    EXPECT_EQ(1, nDatabaseResets());
    passAt(kBoundary + 2);
    EXPECT_EQ(2, nDatabaseResets());
    EXPECT_EQ(2U, nLogged(kDatabaseGone));
}

TEST_F(Housekeeping, AHealthyDatabaseIsLeftAlone) {
    passAt(kBoundary + 1);
    EXPECT_EQ(0, nDatabaseResets());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(Housekeeping, EachPassLetsTheLogLookAtTheTime) {
    const size_t nBefore = nLoggingTimeChecks();
    passAt(kBoundary + 1);
    passAt(kBoundary + 1);
    EXPECT_EQ(nBefore + 2, nLoggingTimeChecks());
}

TEST_F(Housekeeping, APassWatchesPausedListenersAgain) {
    connect_listen_sockfd = nOpenLoopbackListener();
    addToEpollForRead(connect_listen_sockfd);
    const Peer waiting(nConnectLoopback(nLocalPort(connect_listen_sockfd)));
    ASSERT_TRUE(bWaitReadable(connect_listen_sockfd));
    setClockForTest(kBoundary + 1);
    ASSERT_TRUE(bPauseAccepting(connect_listen_sockfd));
    passAt(kBoundary + 1);
    EXPECT_EQ(0, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0));
    passAt(kBoundary + 2);
    EXPECT_EQ(1, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0));
}

TEST_F(Housekeeping, TheArchiveIsLookedAfterInEveryPassNotOnlyAtTicks) {
    passAt(kBoundary + 1);
    EXPECT_EQ(kBoundary + 1, ttLastArchiveSent);
    passAt(kBoundary + 15);
    EXPECT_EQ(kBoundary + 1, ttLastArchiveSent);
    passAt(kBoundary + 17);
    EXPECT_EQ(kBoundary + 17, ttLastArchiveSent);
}

TEST_F(Housekeeping, TheArchiveIsLookedAfterAtTheHeadOfAPass) {
    setClockForTest(kBoundary + 1);
    headOfPass();
    EXPECT_EQ(kBoundary + 1, ttLastArchiveSent);
}

class LossClearing : public Housekeeping {
  protected:
    LossClearing() : _server(openLink()) {
        const Orvex::LostConnectionNetMessage lcnm(7);
        AddToRecentlyLost(&lcnm);
        AddToRecentlyLost(&lcnm);
        ttLastConnServMsg = kBoundary;
        tLastHeartbeat = kBoundary;
    }
    /// The timers have abandoned the silent link.
    void openLinkAnew() {
        if (nConnectionStage == CONNECTION_IDLE) {
            _server = openLink();
        }
    }
    Peer _server;
};

TEST_F(LossClearing, HappensAtTheBoundary) {
    passAt(kBoundary);
    EXPECT_THAT(vRecentlyLost, IsEmpty());
    EXPECT_EQ(1U, nLogged("periodic cleanup - removing 2 entries from recently lost array\n"));
    passAt(kBoundary);
    EXPECT_EQ(1U, nLoggedContaining("periodic cleanup"));
}

TEST_F(LossClearing, HappensInThatVerySecondOnly) {
    passAt(kBoundary - 1);
    passAt(kBoundary + 1);
    EXPECT_EQ(2U, vRecentlyLost.size());
}

TEST_F(LossClearing, HappensEveryThreeHours) {
    for (const int nOtherHour : {1, 2, 4, 5, 7}) {
        passAt(kBoundary + nOtherHour * 3600);
        openLinkAnew();
    }
    passAt(kBoundary + 5400);
    openLinkAnew();
    EXPECT_EQ(2U, vRecentlyLost.size());
    passAt(kBoundary + 10800);
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(LossClearing, ComesAfterTheLookAtTheDatabase) {
    setDatabaseHealthy(false);
    passAt(kBoundary);
    const std::vector<std::string> steps = {kDatabaseGone, "periodic cleanup"};
    EXPECT_EQ(steps, partsInLogOrder(steps));
}

TEST_F(LossClearing, ComesAfterTheArchiveAndThatAfterTheLogsTime) {
    bArchiveEnable = true;
    setClockForTest(kBoundary - 100);
    for (int i = 0; i <= 40000; ++i) {  // too many to be sent, which is logged
        archiveCaption(7, "ab");
        advanceClockForTest(std::chrono::microseconds(1));
    }
    setDatabaseHealthy(false);
    loggedLines().clear();
    passAt(kBoundary);
    const std::vector<std::string> steps = {kDatabaseGone, "WARNING: Archive: Attempt",
                                            "periodic cleanup"};
    EXPECT_EQ(steps, partsInLogOrder(steps));
    EXPECT_EQ(1U, nLinesBeforeLoggingTimeCheck()) << "the database's";
}

TEST_F(LossClearing, NeedsALoggedInRelay) {
    nConnectionStage = WAITING_FOR_LOGIN_RESPONSE;
    passAt(kBoundary);
    EXPECT_EQ(2U, vRecentlyLost.size());
}

}  // namespace
