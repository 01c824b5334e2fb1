/// In which order the timers run at the end of a pass.
#include <sys/socket.h>

#include "base/clock.h"
#include "relayserver/audio/udp_registration.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/loop/housekeeping.h"
#include "relayserver/peers/register_udp.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/settings/timers.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A multiple of 60, and so of 4.
constexpr std::time_t kTick = 60 * 28500000;

class TailOrder : public PeerTest {
  protected:
    static void passAt(std::time_t ttNow) {
        setClockForTest(ttNow);
        headOfPass();
        tailOfPass();
    }

    /// The first word of each line that one of the timers has logged.
    static std::vector<std::string> timersSeen() {
        std::vector<std::string> seen;
        for (const std::string& sLine : loggedLines()) {
            for (const char* const sTimer :
                 {"abandoning", "Dropping connect", "Failed to reach", "SSL handshake timed",
                  "Dropping client", "retrieving a new ticket", "WARNING: input TCP", "Load"}) {
                if (sLine.rfind(sTimer, 0) == 0) {
                    seen.emplace_back(sTimer);
                }
            }
        }
        return seen;
    }

    static Peer addSilent(Orvex::RelayClientTable& table, int nClientID) {
        int fds[2] = {-1, -1};
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
        Orvex::RelayClient client{Orvex::RelayMessageSocket(fds[0], sockaddr_in{})};
        client.SetClientID(nClientID);
        table.Add(client);
        return Peer(fds[1]);
    }
    /// An admitted client that has just spoken.
    static Peer addLively(int nClientID) {
        Peer peer = addAuthClientAt(nClientID, "127.0.0.7");
        authClient(nClientID).SetLastMessageTime(kTick);
        return peer;
    }
};

TEST_F(TailOrder, IsFixed) {
    const Peer server = openLink();
    const Peer talker = addLively(3);
    authClient(3).IncrementTcpInputByteCounter(6000001);
    const Peer owed = addLively(4);
    MarkAsRelay(authClient(4));
    authClient(4).bUdpRegistrationOwed = true;
    const Peer loose = addSilent(ctLooseClientTable, 0);
    const Peer handshaking = addSilent(ctSslHandshakingTable, 0);
    const Peer pendingConnect = addSilent(ctOutboundConnectsPending, 2);
    const Peer idle = addSilent(ctAuthClientTable, 1);
    loggedLines().clear();
    passAt(kTick);
    EXPECT_THAT(timersSeen(), ElementsAre("abandoning", "Dropping connect", "Failed to reach",
                                          "SSL handshake timed", "Dropping client",
                                          "retrieving a new ticket", "WARNING: input TCP", "Load"));
}

TEST_F(TailOrder, WithoutAHeartbeatDueStillTakesAllButHeartbeatsAndLoad) {
    tLastHeartbeatBurst = kTick - 3;
    const Peer pendingConnect = addSilent(ctOutboundConnectsPending, 2);
    const Peer owed = addLively(4);
    MarkAsRelay(authClient(4));
    authClient(4).bUdpRegistrationOwed = true;
    loggedLines().clear();
    passAt(kTick);
    EXPECT_THAT(timersSeen(), ElementsAre("Failed to reach", "retrieving a new ticket"));
}

TEST_F(TailOrder, ARegistrationThatIsOwedIsTriedThreeTimesInARow) {
    setClockForTest(kTick);
    nConnectionStage = WAITING_FOR_CONNECT;
    ttLastConnServMsg = kTick + 1000;
    const Peer owed = addLively(4);
    MarkAsRelay(authClient(4));
    loggedLines().clear();
    RegisterUdp(authClient(4), true, true, true, kAllPrograms);
    for (int nSecs = 4; nSecs < 60; nSecs += 4) {
        authClient(4).SetLastMessageTime(kTick + nSecs);
        passAt(kTick + nSecs);
        EXPECT_EQ(0U, nLoggedContaining("still pending")) << "a request is given its six seconds";
    }
    EXPECT_EQ(1U + 3U, nLoggedContaining("retrieving a new ticket"));
}

TEST_F(TailOrder, ARegistrationThatIsNotOwedIsNotTried) {
    const Peer server = openLink();
    const Peer peer = addLively(4);
    MarkAsRelay(authClient(4));
    loggedLines().clear();
    passAt(kTick);
    EXPECT_EQ(0U, nLoggedContaining("ticket"));
}

TEST_F(TailOrder, TimesInTheFutureStartNow) {
    ttLastUdpReregister = kTick + 100;
    tLastHeartbeat = kTick + 100;
    tLastHeartbeatBurst = kTick + 100;
    clampTimersToNow(kTick);
    EXPECT_EQ(kTick, ttLastUdpReregister);
    EXPECT_EQ(kTick, tLastHeartbeat);
    EXPECT_EQ(kTick, tLastHeartbeatBurst);
}

TEST_F(TailOrder, TimesInThePastStay) {
    ttLastUdpReregister = kTick - 100;
    tLastHeartbeat = kTick - 101;
    tLastHeartbeatBurst = kTick - 102;
    clampTimersToNow(kTick);
    EXPECT_EQ(kTick - 100, ttLastUdpReregister);
    EXPECT_EQ(kTick - 101, tLastHeartbeat);
    EXPECT_EQ(kTick - 102, tLastHeartbeatBurst);
}

}  // namespace
