#include "base/clock.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/orders/link_events.h"
#include "relayserver/peers/register_udp.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

namespace {

/// Client 8 is a relay whose ticket is gone; a link is there to ask for another.
class OwedRegistration : public AudioTest {
  protected:
    OwedRegistration() : relay(addRelayPeer(8, 8, audio)), link(openLink()) {
        authClient(8).SetTicket(nullptr, 0);
    }

    static void want(int nClientID = 8) {
        (void)RegisterUdp(authClient(nClientID), true, true, true, kAllPrograms);
    }

    /// Runs the timer once a second for `nSecs`; returns how many tickets were requested.
    size_t nRequestsWithin(int nSecs) const {
        for (int i = 0; i < nSecs; ++i) {
            advanceClockForTest(1);
            retryOwedRegistrations(nowSecs());
        }
        return link.images().size();
    }

    static void giveTicket(int nClientID = 8) {
        const unsigned char achTicket[] = "a fresh ticket!!";
        authClient(nClientID).SetTicket(achTicket, 16);
    }

    const PeerAudio audio{8};
    Peer relay;
    const Peer link;
};

TEST_F(OwedRegistration, IsTriedAgainThreeTimesSixSecondsApart) {
    want();
    EXPECT_EQ(1U, link.images().size());
    EXPECT_EQ(0U, nRequestsWithin(5));
    EXPECT_EQ(1U, nRequestsWithin(1));
    EXPECT_EQ(0U, nRequestsWithin(5));
    EXPECT_EQ(1U, nRequestsWithin(1));
    EXPECT_EQ(1U, nRequestsWithin(6));
    EXPECT_EQ(0U, nRequestsWithin(600));
}

TEST_F(OwedRegistration, IsOverOnceItWasSent) {
    want();
    giveTicket();
    want();
    EXPECT_EQ(18U, audio.nReceived());
    (void)link.images();
    EXPECT_EQ(0U, nRequestsWithin(30));
    EXPECT_EQ(0U, audio.nReceived());
}

TEST_F(OwedRegistration, IsSentByTheTimerWhenThereIsATicketByThen) {
    want();
    giveTicket();
    (void)link.images();
    EXPECT_EQ(0U, nRequestsWithin(6));
    EXPECT_EQ(18U, audio.nReceived());
    EXPECT_EQ(0U, nRequestsWithin(30));
    EXPECT_EQ(0U, audio.nReceived());
}

TEST_F(OwedRegistration, IsRememberedWhenTheLastRequestIsStillPending) {
    want();
    giveTicket();
    want();
    (void)audio.nReceived();
    authClient(8).SetTicket(nullptr, 0);  // the peer has refused it
    want();
    EXPECT_EQ(1U, nLoggedContaining("still pending"));
    (void)link.images();
    EXPECT_EQ(0U, nRequestsWithin(10));  // the peer would still refuse
    EXPECT_EQ(1U, nRequestsWithin(1));
}

TEST_F(OwedRegistration, HasItsRetriesAgainAMinuteAfterTheLastRequest) {
    want();
    EXPECT_EQ(4U, nRequestsWithin(60));  // the last of them after 18 s
    advanceClockForTest(17);
    want();
    EXPECT_EQ(0U, nRequestsWithin(1));  // 59 s after it
    EXPECT_EQ(1U, nLoggedContaining("4 tickets in a row were of no use"));
    want();
    EXPECT_EQ(4U, nRequestsWithin(30));
}

TEST_F(OwedRegistration, IsNotDelayedByAClockThatWasSetBack) {
    want();
    EXPECT_EQ(1U, link.images().size());
    advanceClockForTest(-3600);
    EXPECT_EQ(1U, nRequestsWithin(1));
    EXPECT_EQ(0U, nRequestsWithin(5));
    EXPECT_EQ(1U, nRequestsWithin(1));
}

TEST_F(OwedRegistration, OfOnePeerIsNotThatOfAnother) {
    const PeerAudio otherAudio(9);
    const Peer other = addRelayPeer(10, 9, otherAudio);
    want();
    (void)link.images();
    EXPECT_EQ(1U, nRequestsWithin(6));
    EXPECT_EQ(0U, otherAudio.nReceived());
    EXPECT_FALSE(authClient(10).bUdpRegistrationOwed);
}

TEST_F(OwedRegistration, IsTriedForEveryPeerAlthoughTheLinkBreaks) {
    const PeerAudio otherAudio(9);
    const Peer other = addRelayPeer(10, 9, otherAudio);
    want();
    authClient(10).SetTicket(nullptr, 0);
    want(10);
    giveTicket(10);
    advanceClockForTest(6);
    // The request for 8 finds the link broken; its last message is for 8, to which nothing can be
    // sent any more.
    ttLastCSConnectAttempt = nowSecs();
    link.sendBytes(sFrame(sImage(3, 1, 8, "hello~")));
    link.stopReading();
    relay.close();
    retryOwedRegistrations(nowSecs());
    EXPECT_TRUE(bIsAdmitted(8));
    EXPECT_EQ(18U, otherAudio.nReceived());  // the walk went on
}

TEST_F(OwedRegistration, APeerStaysWhileItsTicketIsRequestedOnABrokenLink) {
    ttLastCSConnectAttempt = nowSecs();
    link.sendBytes(sFrame(sImage(3, 1, 8, "hello~")));
    link.stopReading();
    relay.close();
    want();
    EXPECT_EQ(1U, nLogged("socket broken sending message to connection server!\n"));
    EXPECT_TRUE(authClient(8).bUdpRegistrationOwed);
    settleBrokenLink();
    EXPECT_FALSE(bIsAdmitted(8));
}

}  // namespace
