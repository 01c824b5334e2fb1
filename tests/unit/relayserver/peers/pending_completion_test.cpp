/// What becomes of a pending connect.
#include <sys/socket.h>

#include "base/clock.h"
#include "base/string_format.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/client_loss.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/loop/client_timers.h"
#include "relayserver/loop/event_loop.h"
#include "relayserver/peers/pending_connects.h"
#include "relayserver/sockets/epoll_set.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kConnected =
    "Non-blocking connection to relay 127.0.0.1 successfully initiated\n";

class PendingCompletion : public PeerTest {
  protected:
    static void start(const Order& order) {
        startPeerConnect(orderOf(order));
        loggedLines().clear();
    }
    /// A connect to a port where nobody listens; its descriptor.
    int nStartRefused() const {
        start({.nTcpPort = nDeafPort(), .nUdpPort = 6900});
        return fdOf(pending(8));
    }
    static std::string sCleaning(int fd) { return string_format("cleaning up socket fd %d\n", fd); }

    const Peer server = openLink();
    const OtherRelay other;

  private:
    /// A port that was free a moment ago.
    static int nDeafPort() {
        const OtherRelay gone;
        return gone.nPort();
    }
};

TEST_F(PendingCompletion, LogsInUnderTheTicketOfTheOrder) {
    start({.nTcpPort = other.nPort(), .sTicket = "a ticket"});
    const Peer there = other.acceptRelay();
    offerReady();
    EXPECT_THAT(there.images(), ElementsAre(sOwnLogin("a ticket")));
    EXPECT_THAT(loggedLines(), ElementsAre(kConnected));
    EXPECT_THAT(server.images(), IsEmpty()) << "the other relay tells the server";
}

TEST_F(PendingCompletion, TheLoginHasItsBytes) {
    start({.nTcpPort = other.nPort(), .sTicket = "abc"});
    const Peer there = other.acceptRelay();
    offerReady();
    EXPECT_THAT(there.images(),
                ElementsAre(std::string("\x13\xE8\x03\0\0\0\0\0\0", 9) + "1000~abc~~"))
        << "padded";
}

TEST_F(PendingCompletion, MakesAnAdmittedClientWithAllThatThePendingOneHad) {
    start({.nToID = 8, .nTcpPort = other.nPort(), .nUdpPort = 6900, .sTicket = "a ticket"});
    const int fd = fdOf(pending(8));
    advanceClockForTest(4);
    offerReady();
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    ASSERT_TRUE(bIsAdmitted(8));
    EXPECT_EQ(fd, fdOf(8));
    EXPECT_EQ("a ticket", sTicketOf(authClient(8)));
    EXPECT_EQ(htons(6900), authClient(8).nRelayUdpBasePort);
    long lLastMessage = 0;
    authClient(8).GetLastMessageTime(lLastMessage);
    EXPECT_EQ(kNow + 4, lLastMessage);
    EXPECT_FALSE(bIsRelayPeer(authClient(8))) << "not before the other relay has answered";
}

TEST_F(PendingCompletion, LeavesTheConnectionWatchedForInputOnly) {
    start({.nTcpPort = other.nPort()});
    const Peer there = other.acceptRelay();
    offerReady();
    EXPECT_EQ(0, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0));
    there.sendBytes(sFrame(sResponse(8, rcOK)));
    offerReady();
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
}

TEST_F(PendingCompletion, UsesTheTicketOfTheLastOrder) {
    start({.nTcpPort = other.nPort(), .sTicket = "first"});
    start({.nTcpPort = other.nPort(), .sTicket = "second"});
    const Peer there = other.acceptRelay();
    offerReady();
    EXPECT_THAT(there.images(), ElementsAre(sOwnLogin("second")));
    EXPECT_FALSE(other.bHasCaller());
}

TEST_F(PendingCompletion, OfSeveralAtOnceCompletesEach) {
    start({.nToID = 8, .nTcpPort = other.nPort(), .sTicket = "for 8"});
    start({.nToID = 9, .nTcpPort = other.nPort(), .sTicket = "for 9"});
    const Peer first = other.acceptRelay();
    const Peer second = other.acceptRelay();
    offerReady();
    EXPECT_THAT(first.images(), ElementsAre(sOwnLogin("for 8")));
    EXPECT_THAT(second.images(), ElementsAre(sOwnLogin("for 9")));
    EXPECT_EQ(2, ctAuthClientTable.GetSize());
}

TEST_F(PendingCompletion, ALoginThatCannotBeSentLeavesNoRecord) {
    start({.nTcpPort = other.nPort()});
    const int fd = fdOf(pending(8));
    ASSERT_EQ(1, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 5000));
    ASSERT_EQ(0, shutdown(fd, SHUT_WR));
    offerToHandlers(ep_events[0], 0);
    EXPECT_THAT(loggedLines(),
                ElementsAre(kConnected, sCleaning(fd),
                            "WARNING: could not identify client - closing fd anyway\n"));
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_THAT(server.images(), IsEmpty());
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(PendingCompletion, ARefusedConnectLeavesNoRecord) {
    const int nBefore = nOpenDescriptors();
    const int fd = nStartRefused();
    offerReady();
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ(nBefore, nOpenDescriptors());
    ASSERT_EQ(3U, loggedLines().size());
    EXPECT_EQ(1U, nLoggedContaining("will be closed, epoll error status 0x"));
    EXPECT_EQ(sCleaning(fd), loggedLines()[1]);
    EXPECT_EQ("WARNING: could not identify client - closing fd anyway\n", loggedLines()[2]);
    EXPECT_THAT(server.images(), IsEmpty());
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(PendingCompletion, ANewcomerOnTheDescriptorOfARefusedConnectGetsNothingOfIt) {
    const int fdOld = nStartRefused();
    offerReady();
    const Peer newcomer = addLooseClient();
    ASSERT_TRUE(ctLooseClientTable.bBeginTraverse());
    ASSERT_EQ(fdOld, fdOf(ctLooseClientTable.current())) << "the number is used again";
    newcomer.sendBytes(sFrame(sImage(3, 0, 0, "")));
    offerReady();
    EXPECT_EQ(1U, nLoggedContaining("Message type 0x03 received from unauthorized client"));
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_THAT(newcomer.images(), IsEmpty());
    cancelStaleConnects(kNow + 100);
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
    EXPECT_FALSE(newcomer.bClosedByRelay());
}

TEST_F(PendingCompletion, ABadSocketIsNoLongerPending) {
    start({.nTcpPort = other.nPort()});
    const Peer there = other.acceptRelay();
    CleanBadSocket(fdOf(pending(8)), LeaveReason::kErrorEvent);
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_TRUE(there.bClosedByRelay());
}

TEST_F(PendingCompletion, GivesWayToAClientThatHasThatIdByNow) {
    start({.nTcpPort = other.nPort(), .nUdpPort = 6900});
    const Peer there = other.acceptRelay();
    const Peer admitted = addAuthClientAt(8, "127.0.0.7");
    const int fdAdmitted = fdOf(8);
    offerReady();
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_EQ(1, ctAuthClientTable.GetSize());
    EXPECT_EQ(fdAdmitted, fdOf(8));
    EXPECT_THAT(there.images(), IsEmpty());
    EXPECT_TRUE(there.bClosedByRelay());
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_EQ(htons(6900), authClient(8).nRelayUdpBasePort);
    EXPECT_THAT(server.images(), ElementsAre(sConfirmation(8)));
    EXPECT_EQ(1U, nLogged("WARNING: already connected to relay id 8, not initiating new "
                          "connection\n"));
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(PendingCompletion, IsWaitedForFiveSeconds) {
    start({.nTcpPort = other.nPort()});
    const Peer there = other.acceptRelay();
    cancelStaleConnects(kNow + 5);
    EXPECT_TRUE(bIsPending(8));
    EXPECT_THAT(loggedLines(), IsEmpty());
    cancelStaleConnects(kNow + 6);
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_TRUE(there.bClosedByRelay());
    EXPECT_THAT(
        loggedLines(),
        ElementsAre("Failed to reach out to relay 127.0.0.1 in 5 seconds, cancelling attempt\n",
                    string_format("Removing client table entry for address 127.0.0.1(%d).\n",
                                  other.nPort())));
    EXPECT_THAT(server.images(), IsEmpty());
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(PendingCompletion, OfStaleConnectsAmongOthersAllAreCancelled) {
    for (const int nPeerID : {1, 2, 3, 4}) {
        start({.nToID = nPeerID, .nTcpPort = other.nPort()});
    }
    pending(2).SetLastMessageTime(kNow + 5);
    cancelStaleConnects(kNow + 10);
    EXPECT_EQ(1, ctOutboundConnectsPending.GetSize());
    EXPECT_TRUE(bIsPending(2));
}

TEST_F(PendingCompletion, WaitsThroughALostLink) {
    start({.nTcpPort = other.nPort()});
    LostConnectionToCS();
    offerReady();
    EXPECT_TRUE(bIsAdmitted(8));
}

}  // namespace
