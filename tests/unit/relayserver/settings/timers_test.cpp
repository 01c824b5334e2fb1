#include "relayserver/settings/timers.h"

#include "base/clock.h"
#include "tests/unit/relayserver/engine_fixture.h"

namespace {

using Timers = EngineTest;

TEST_F(Timers, BeginWithTheProcess) {
    EXPECT_EQ(kNow, tLastHeartbeat);
    EXPECT_EQ(kNow, tLastHeartbeatBurst);
    EXPECT_EQ(kNow, ttLastUdpReregister);
}

TEST_F(Timers, AreNotedOneByOne) {
    noteHeartbeat(kNow + 1);
    noteHeartbeatBurst(kNow + 2);
    noteUdpReregister(kNow + 3);
    EXPECT_EQ(kNow + 1, tLastHeartbeat);
    EXPECT_EQ(kNow + 2, tLastHeartbeatBurst);
    EXPECT_EQ(kNow + 3, ttLastUdpReregister);
}

TEST_F(Timers, StartNowWhenTheyLieInTheFuture) {
    noteHeartbeat(kNow + 100);
    noteHeartbeatBurst(kNow + 100);
    noteUdpReregister(kNow + 100);
    clampTimersToNow(kNow + 50);
    EXPECT_EQ(kNow + 50, tLastHeartbeat);
    EXPECT_EQ(kNow + 50, tLastHeartbeatBurst);
    EXPECT_EQ(kNow + 50, ttLastUdpReregister);
    clampTimersToNow(kNow + 60);
    EXPECT_EQ(kNow + 50, tLastHeartbeat) << "those in the past stay";
}

}  // namespace
