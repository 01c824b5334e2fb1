#include "base/clock.h"
#include "relayserver/admission/connect_limits.h"
#include "relayserver/peers/register_udp.h"
#include "relayserver/settings/time_limits.h"
#include "tests/unit/relayserver/engine_fixture.h"

namespace {

/// Client 8 is a relay that refuses every ticket; a link is there to ask for others.
class TicketRequests : public EngineTest {
  protected:
    TicketRequests() : relay(addAuthClient(8)), link(openLink()) {}

    /// Has a reason for a request each second; returns how many were sent.
    size_t nSentWithin(int nSecs) const {
        for (int i = 0; i < nSecs; ++i) {
            advanceClockForTest(1);
            (void)RegisterUdp(authClient(8), true, true, false, 0);
            retryOwedRegistrations(nowSecs());
        }
        return link.images().size();
    }

    const Peer relay;
    const Peer link;
};

TEST_F(TicketRequests, EndAfterTheFourthHoweverManyReasonsThereAre) {
    EXPECT_EQ(4U, nSentWithin(1 + 3 * kTicketRequestSecs));
    EXPECT_EQ(0U, nSentWithin(59));
}

TEST_F(TicketRequests, StartOverAMinuteAfterTheLast) {
    EXPECT_EQ(4U, nSentWithin(1 + 3 * kTicketRequestSecs));
    advanceClockForTest(60);
    EXPECT_EQ(4U, nSentWithin(59));
}

TEST_F(TicketRequests, StartOverWhenTheClockWasSetBack) {
    EXPECT_EQ(4U, nSentWithin(1 + 3 * kTicketRequestSecs));
    advanceClockForTest(-3600);
    EXPECT_EQ(4U, nSentWithin(1 + 3 * kTicketRequestSecs));
}

TEST_F(TicketRequests, ByTheTimerWaitForThePeersNextPeriod) {
    const unsigned char achTicket[] = "a fresh ticket!!";
    authClient(8).SetTicket(achTicket, 16);
    (void)RegisterUdp(authClient(8), true, true, true, kAllPrograms);
    authClient(8).SetTicket(nullptr, 0);  // the peer has refused it
    (void)RegisterUdp(authClient(8), true, true, true, kAllPrograms);
    authClient(8).SetTicket(achTicket, 16);
    (void)RegisterUdp(authClient(8), true, true, true, kAllPrograms);
    authClient(8).SetTicket(nullptr, 0);  // and again
    (void)RegisterUdp(authClient(8), true, true, true, kAllPrograms);
    EXPECT_EQ(1U, link.images().size());
    advanceClockForTest(kPeriodNewConnects);
    retryOwedRegistrations(nowSecs());
    EXPECT_EQ(0U, link.images().size());
    advanceClockForTest(1);
    retryOwedRegistrations(nowSecs());
    EXPECT_EQ(1U, link.images().size());
}

}  // namespace
