/// Two relays that connect to each other at once.
#include "base/clock.h"
#include "relayserver/admission/loose_client.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/loop/client_timers.h"
#include "relayserver/peers/pending_connects.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/switching/client_messages.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/admission/ticket_maker.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned kHigher = 2006;  // than our own 1000
constexpr unsigned kLower = 500;

class BothAtOnce : public PeerTest {
  protected:
    BothAtOnce() {
        makeSessionKey();
        loggedLines().clear();
    }

    /// Our connection to relay `nPeerID`, on which we have logged in; the other relay's end.
    Peer connectTo(unsigned nPeerID) const {
        startPeerConnect(orderOf({.nToID = static_cast<int>(nPeerID), .nTcpPort = other.nPort()}));
        Peer there = other.acceptRelay();
        offerReady();
        EXPECT_TRUE(bIsAdmitted(static_cast<int>(nPeerID)));
        (void)there.sReceived();
        loggedLines().clear();
        return there;
    }
    /// The same relay logs in to us.
    static void logInAs(unsigned nPeerID, const Peer& inbound) {
        inbound.sendBytes(sFrame(sLoginImage(nPeerID, sEncryptedTicket(nPeerID, nowSecs()))));
        stepLoose();
    }
    static void stepLoose() {
        ASSERT_TRUE(ctLooseClientTable.bBeginTraverse());
        stepLooseClient(ctLooseClientTable.current());
    }
    static void answer(const Peer& there, unsigned nPeerID, long lCode) {
        there.sendBytes(sFrame(sResponse(nPeerID, Orvex::ReturnCode(lCode))));
        readAndSwitch(authClient(static_cast<int>(nPeerID)));
    }
    static bool bOursStands(unsigned nPeerID, const Peer& ours, const Peer& theirs) {
        return bIsAdmitted(static_cast<int>(nPeerID)) && !ours.bClosedByRelay() &&
               theirs.images().empty() && ctLooseClientTable.GetSize() <= 1;
    }
    static bool bTheirsStands(unsigned nPeerID, const Peer& ours, const Peer& theirs) {
        return bIsAdmitted(static_cast<int>(nPeerID)) && ours.bClosedByRelay() &&
               !theirs.images().empty() && ctLooseClientTable.GetSize() == 0;
    }

    const Peer server = openLink();
    const OtherRelay other;
};

TEST_F(BothAtOnce, TheLowerIdKeepsTheConnectionOfItsOwn) {
    const Peer ours = connectTo(kHigher);
    const Peer theirs = addLooseClient();
    logInAs(kHigher, theirs);
    EXPECT_TRUE(bOursStands(kHigher, ours, theirs));
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
    EXPECT_FALSE(theirs.bClosedByRelay()) << "the other relay does that";
    EXPECT_EQ(1, ctAuthClientTable.GetSize());
    EXPECT_THAT(server.images(), IsEmpty());
    EXPECT_THAT(loggedLines(), ElementsAre("INFO: relay 2006 connects to us while we connect to "
                                           "it, ours is to stand\n"));
}

TEST_F(BothAtOnce, TheHigherIdGivesWay) {
    const Peer ours = connectTo(kLower);
    const Peer theirs = addLooseClient();
    logInAs(kLower, theirs);
    EXPECT_TRUE(bTheirsStands(kLower, ours, theirs));
    EXPECT_EQ(1, ctAuthClientTable.GetSize());
    EXPECT_EQ(1U, nLogged("closing older connection with ID 500\n"));
    EXPECT_THAT(server.images(), ElementsAre(sConfirmation(kLower)));
}

TEST_F(BothAtOnce, ALoginLeftUnansweredEndsWhenTheOtherRelayCloses) {
    const Peer ours = connectTo(kHigher);
    Peer theirs = addLooseClient();
    logInAs(kHigher, theirs);
    theirs.close();
    stepLoose();
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
    answer(ours, kHigher, 0);
    EXPECT_TRUE(bIsRelayPeer(authClient(kHigher)));
}

TEST_F(BothAtOnce, ALoginLeftUnansweredEndsByTheTimeOutOfLogins) {
    const Peer ours = connectTo(kHigher);
    const Peer theirs = addLooseClient();
    logInAs(kHigher, theirs);
    dropLooseClients(kNow + 15);
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
    dropLooseClients(kNow + 16);
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
    EXPECT_TRUE(theirs.bClosedByRelay());
    EXPECT_TRUE(bOursStands(kHigher, ours, theirs));
}

TEST_F(BothAtOnce, ALoginIsStillCountedAgainstTheBudget) {
    const Peer ours = connectTo(kHigher);
    const Peer theirs = addLooseClient();
    logInAs(kHigher, theirs);
    ASSERT_TRUE(ctLooseClientTable.bBeginTraverse());
    ctLooseClientTable.current().IncrementTcpInputByteCounter(20000);
    theirs.sendBytes(sFrame(sImage(3, 0, 0, "")));
    stepLoose();
    EXPECT_TRUE(theirs.bClosedByRelay());
}

TEST_F(BothAtOnce, TheLowerIdKeepsItsOwnEvenOnceItIsAnswered) {
    for (const long lCode : {0L, 4L}) {
        const Peer ours = connectTo(kHigher);
        answer(ours, kHigher, lCode);
        Peer theirs = addLooseClient();
        logInAs(kHigher, theirs);
        EXPECT_TRUE(bOursStands(kHigher, ours, theirs)) << lCode;
        theirs.close();
        stepLoose();
        DeleteClient(ctAuthClientTable, authClient(kHigher), LeaveReason::kLoggedOut);
    }
}

TEST_F(BothAtOnce, AfterFiveSecondsTheNewestConnectionWins) {
    const Peer ours = connectTo(kHigher);
    advanceClockForTest(6);
    const Peer theirs = addLooseClient();
    logInAs(kHigher, theirs);
    EXPECT_TRUE(bTheirsStands(kHigher, ours, theirs));
}

TEST_F(BothAtOnce, WhatTheOtherRelaySaysDoesNotMakeALoginYoung) {
    const Peer ours = connectTo(kHigher);
    advanceClockForTest(6);
    answer(ours, kHigher, 0);
    const Peer theirs = addLooseClient();
    logInAs(kHigher, theirs);
    EXPECT_TRUE(bTheirsStands(kHigher, ours, theirs));
}

TEST_F(BothAtOnce, ALoginIsYoungForFiveSeconds) {
    const Peer ours = connectTo(kHigher);
    advanceClockForTest(5);
    const Peer theirs = addLooseClient();
    logInAs(kHigher, theirs);
    EXPECT_TRUE(bOursStands(kHigher, ours, theirs));
}

TEST_F(BothAtOnce, AClockSetBackDoesNotMakeALoginYoung) {
    const Peer ours = connectTo(kHigher);
    setClockForTest(kNow - 100);
    const Peer theirs = addLooseClient();
    logInAs(kHigher, theirs);
    EXPECT_TRUE(bTheirsStands(kHigher, ours, theirs));
}

TEST_F(BothAtOnce, AConnectionThatTheOtherRelayHasClosedForOursDoesNotEndOurs) {
    const Peer ours = connectTo(kHigher);
    Peer theirs = addLooseClient();
    theirs.sendBytes(sFrame(sLoginImage(kHigher, sEncryptedTicket(kHigher, kNow))));
    // The other relay takes our log-in, closes its own connection and answers; we see the answer
    // first.
    theirs.close();
    answer(ours, kHigher, 0);
    stepLoose();
    EXPECT_TRUE(bIsAdmitted(kHigher));
    EXPECT_FALSE(ours.bClosedByRelay());
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
}

TEST_F(BothAtOnce, AConnectionThatItsClientHasClosedStillReplacesOneThatWeDidNotOpen) {
    const Peer older = addAuthClient(7);
    Peer newer = addLooseClient();
    newer.sendBytes(sFrame(sLoginImage(7, sEncryptedTicket(7, kNow))));
    newer.close();
    stepLoose();
    EXPECT_TRUE(older.bClosedByRelay()) << "the newest connection of an id wins";
}

TEST_F(BothAtOnce, ALoginThatWinsOverAPendingConnectLeavesOneLink) {
    startPeerConnect(orderOf({.nToID = static_cast<int>(kHigher), .nTcpPort = other.nPort()}));
    const Peer ours = other.acceptRelay();
    const Peer theirs = addLooseClient();
    logInAs(kHigher, theirs);
    EXPECT_TRUE(bIsAdmitted(kHigher)) << "we have not logged in there yet";
    offerReady();
    EXPECT_TRUE(ours.bClosedByRelay());
    EXPECT_THAT(ours.images(), IsEmpty());
    EXPECT_EQ(1, ctAuthClientTable.GetSize());
    EXPECT_TRUE(bIsRelayPeer(authClient(kHigher)));
    EXPECT_THAT(server.images(), ElementsAre(sConfirmation(kHigher), sConfirmation(kHigher)));
}

TEST_F(BothAtOnce, AnInvalidTicketIsRefusedInEitherOrder) {
    const Peer ours = connectTo(kHigher);
    const Peer theirs = addLooseClient();
    theirs.sendBytes(sFrame(sLoginImage(kHigher, sEncryptedTicket(7, kNow))));
    stepLoose();
    EXPECT_THAT(theirs.images(), testing::SizeIs(1));
    EXPECT_TRUE(theirs.bClosedByRelay());
    EXPECT_FALSE(ours.bClosedByRelay());
}

TEST_F(BothAtOnce, OtherIdsComeInMeanwhile) {
    const Peer ours = connectTo(kHigher);
    const Peer station = addLooseClient();
    logInAs(7, station);
    EXPECT_TRUE(bIsAdmitted(7));
    EXPECT_TRUE(bIsAdmitted(kHigher));
}

}  // namespace
