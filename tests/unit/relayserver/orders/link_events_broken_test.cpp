/// A send to the connection server that fails only marks the link: no client goes and no order is
/// carried out before the handler has returned. Then the link is settled, once.
#include <sys/socket.h>

#include "base/clock.h"
#include "genner/output/LogOutNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/client_report.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/loop/client_timers.h"
#include "relayserver/loop/event_loop.h"
#include "relayserver/loop/housekeeping.h"
#include "relayserver/orders/connect_order.h"
#include "relayserver/orders/link_events.h"
#include "relayserver/peers/pending_connects.h"
#include "relayserver/peers/register_udp.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/routes/RoutingCache.h"
#include "relayserver/settings/servers.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/switching/client_messages.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr const char* kSendFailed = "socket broken sending message to connection server!\n";
constexpr const char* kThrottled = "Throttling reconnect attempt, must wait at least 1 seconds\n";

class BrokenLink : public PeerTest {
  protected:
    BrokenLink() {
        serverQ.emplace("first");
        serverQ.emplace("second");
    }

    /// The next send on the link fails; before that its server sent a message for each of `ids`.
    void breakLinkWithAMessageFor(std::initializer_list<int> ids) const {
        for (const int nID : ids) {
            server.sendBytes(sFrame(sImage(kChat, 0, static_cast<unsigned>(nID), "ab")));
        }
        server.stopReading();
    }
    void breakLinkWithAnOrder(const Order& order) const {
        Orvex::ConnectOrderNetMessage conm = orderOf(order);
        server.send(conm);
        server.stopReading();
    }
    /// A client to which every send fails.
    Peer addDeaf(int nClientID) const {
        Peer peer = addAuthClientAt(nClientID, "127.0.0.7");
        peer.stopReading();
        return peer;
    }
    static int nForward(int nType) {
        const std::string sMessage = sImage(nType, 7, 0, "");
        Orvex::NetMessage nmMessage(sMessage.data(), static_cast<int>(sMessage.size()));
        return ForwardToCS(nmMessage);
    }
    static std::string sCleaning(int fd) {
        return "cleaning up socket fd " + std::to_string(fd) + "\n";
    }
    /// What settling the link with descriptor `fd` logs when its server has sent nothing more.
    static std::vector<std::string> settlingOf(int fd) {
        return {sCleaning(fd), "cleanbadsocket was on connection server\n",
                "Lost connection to CS!\n", kThrottled};
    }

    const Peer server = openLink();
};

// ---- the mark

TEST_F(BrokenLink, AFailedSendOnlyMarksTheLink) {
    server.stopReading();
    const int fd = connserv_sockfd;
    EXPECT_EQ(0, nForward(kStatus));
    EXPECT_EQ(fd, connserv_sockfd);
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
    EXPECT_FALSE(bLinkFinished());
    EXPECT_EQ(1U, csForwardQueue.size());
    EXPECT_THAT(loggedLines(), ElementsAre(kSendFailed));
    EXPECT_EQ("first", serverQ.front());
}

TEST_F(BrokenLink, NothingMoreIsSentOnAMarkedLink) {
    markLinkBroken();
    EXPECT_EQ(0, nForward(kStatus));
    EXPECT_EQ("", server.sReceived());
    EXPECT_EQ(1U, csForwardQueue.size());
    EXPECT_EQ(0, nForward(18)) << "losses are rebuilt, not queued";
    EXPECT_EQ(1U, csForwardQueue.size());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(BrokenLink, AMarkedLinkLeavesTheQueueInItsOrder) {
    markLinkBroken();
    EXPECT_EQ(0, nForward(kStatus));
    EXPECT_EQ(0, nForward(kChat));
    EXPECT_EQ(2, SendCSQueue());
    EXPECT_EQ(sFrame(sImage(kStatus, 7, 0, "")), csForwardQueue.front()->frame());
}

TEST_F(BrokenLink, TheMarkGoesWithTheLink) {
    markLinkBroken();
    LostConnectionToCS();
    EXPECT_FALSE(bLinkMarkedBroken());
    loggedLines().clear();
    settleBrokenLink();
    EXPECT_THAT(loggedLines(), IsEmpty());
}

// ---- settling

TEST_F(BrokenLink, IsSettledOnce) {
    const int fd = connserv_sockfd;
    markLinkBroken();
    settleBrokenLink();
    EXPECT_EQ(settlingOf(fd), loggedLines());
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_TRUE(server.bClosedByRelay());
    EXPECT_EQ("second", serverQ.front());
    settleBrokenLink();
    EXPECT_EQ(4U, loggedLines().size());
}

TEST_F(BrokenLink, IsTriedAgainAtOnceWhenTheLastAttemptIsOldEnough) {
    advanceClockForTest(1);
    serverQ = {};  // there is no server to resolve
    markLinkBroken();
    settleBrokenLink();
    EXPECT_EQ(kNow + 1, ttLastCSConnectAttempt);
    EXPECT_EQ(0U, nLogged(kThrottled));
}

TEST_F(BrokenLink, HandlesWhatItsServerSentBeforeItIsLost) {
    const Peer client = addAuthClient(7);
    breakLinkWithAMessageFor({7});
    nForward(kStatus);
    EXPECT_THAT(client.images(), IsEmpty());
    settleBrokenLink();
    EXPECT_THAT(client.images(), ElementsAre(sImage(kChat, 0, 7, "ab")));
}

TEST_F(BrokenLink, ALogOutAmongTheLastMessagesEndsItWithoutASwitch) {
    Orvex::LogOutNetMessage lonm;
    server.send(lonm);
    markLinkBroken();
    settleBrokenLink();
    EXPECT_EQ(1U, nLogged("Lost connection to CS!\n"));
    EXPECT_EQ("first", serverQ.front());
    EXPECT_EQ(0U, nLogged(kThrottled));
}

TEST_F(BrokenLink, AReadErrorOfAMarkedLinkHasItsOwnSequel) {
    nForward(kStatus);
    breakLinkWithAMessageFor({});
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_RDWR));
    markLinkBroken();
    epoll_event epe{};
    epe.events = EPOLLIN;
    epe.data.fd = connserv_sockfd;
    onLinkEvent(epe);
    settleBrokenLink();
    EXPECT_EQ(1U, nLogged("Lost connection to CS!\n"));
    EXPECT_EQ("first", serverQ.front()) << "the timers try the same server again";
}

TEST_F(BrokenLink, TheLoopSettlesItAfterTheHandler) {
    const Peer sender = addAuthClient(7);
    const Peer other = addAuthClient(8);
    breakLinkWithAMessageFor({8});
    sender.sendBytes(sFrame(sImage(kStatus, 7, 0, "ab")));
    offerReady();
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ(1U, nLogged(kSendFailed));
    EXPECT_EQ(1U, nLogged("Lost connection to CS!\n"));
    EXPECT_EQ(1U, csForwardQueue.size());
    EXPECT_THAT(other.images(), ElementsAre(sImage(kChat, 0, 8, "ab")));
}

TEST_F(BrokenLink, TheTickSettlesItAfterItsHeartbeat) {
    const int fd = connserv_sockfd;
    server.stopReading();
    advanceClockForTest(7);  // to a second divisible by four
    ttLastConnServMsg = nowSecs();
    ASSERT_EQ(0, nowSecs() % 4);
    headOfPass();
    tailOfPass();
    EXPECT_EQ(1U, nLogged(kSendFailed));
    EXPECT_EQ(1U, nLogged(sCleaning(fd)));
    EXPECT_EQ(1U, nLogged("Lost connection to CS!\n"));
    EXPECT_EQ(1U, csForwardQueue.size()) << "the heartbeat waits for the next link";
}

// ---- who holds a client meanwhile

TEST_F(BrokenLink, AWalkGoesOnUndisturbed) {
    const Peer first = addAuthClient(7);
    const Peer second = addDeaf(8);
    const Peer third = addAuthClient(9);
    breakLinkWithAMessageFor({9, 8});
    dropIdleClients(kNow + 16);
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ(3U, vRecentlyLost.size());
    for (const char* sID : {"7", "8", "9"}) {
        EXPECT_EQ(1U, nLoggedContaining(std::string("Dropping connect to client ID ") + sID));
    }
    EXPECT_EQ(1U, nLogged(kSendFailed));
    EXPECT_EQ(0U, nLogged("Lost connection to CS!\n"));
}

TEST_F(BrokenLink, EachClientOfAHeartbeatBurstGoesForItsOwnReason) {
    const Peer first = addDeaf(7);
    const Peer second = addDeaf(8);
    const Peer third = addAuthClient(9);
    breakLinkWithAMessageFor({8, 7});
    checkInputAndSendHeartbeats(kNow);
    EXPECT_TRUE(bIsAdmitted(9));
    EXPECT_EQ(1, ctAuthClientTable.GetSize());
    EXPECT_EQ(1U, nLogged("removing socket for client 7, and notifying CS\n"));
    EXPECT_EQ(1U, nLogged("removing socket for client 8, and notifying CS\n"));
    settleBrokenLink();
    EXPECT_EQ(1, ctAuthClientTable.GetSize()) << "there is no such client left to deliver to";
}

TEST_F(BrokenLink, TheOtherDestinationsOfARouteAreServed) {
    const Peer sender = addAuthClient(7);
    const Peer first = addDeaf(8);
    const Peer second = addAuthClient(9);
    route(7, kChatPipe, {8, 9});
    breakLinkWithAMessageFor({9});
    sender.sendBytes(sFrame(sImage(kChat, 7, 0, "cd")));
    readAndSwitch(authClient(7));
    settleBrokenLink();
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_TRUE(bIsAdmitted(7));
    EXPECT_THAT(second.images(), ElementsAre(sImage(kChat, 7, 0, "cd"), sImage(kChat, 0, 9, "ab")));
}

TEST_F(BrokenLink, TheSenderMayGoOnlyAfterItsHandlerHasReturned) {
    const Peer sender = addAuthClient(7);
    const Peer destination = addDeaf(8);
    route(7, kChatPipe, {8});
    breakLinkWithAMessageFor({7});
    sender.sendBytes(sFrame(sImage(kChat, 7, 0, "ab")));
    sender.stopReading();
    readAndSwitch(authClient(7));
    EXPECT_TRUE(bIsAdmitted(7));
    settleBrokenLink();
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ(2U, vRecentlyLost.size());
}

TEST_F(BrokenLink, APeerThatIsConfirmedStays) {
    const Peer peer = addDeaf(8);
    breakLinkWithAMessageFor({8});
    onConnectOrder(orderOf({.nToID = 8}));
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    settleBrokenLink();
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
}

TEST_F(BrokenLink, EveryPeerIsReregistered) {
    const Peer first = addDeaf(7);
    const Peer second = addAuthClientAt(9, "127.0.0.7");
    for (const int nPeerID : {7, 9}) {
        MarkAsRelay(authClient(nPeerID));
    }
    breakLinkWithAMessageFor({7});
    loggedLines().clear();
    EXPECT_TRUE(ReregisterRelayPeers());
    EXPECT_EQ(1U, nLoggedContaining("registration to client 7"));
    EXPECT_EQ(1U, nLoggedContaining("registration to client 9"));
    EXPECT_EQ(2U, csForwardQueue.size()) << "both requests wait for the next link";
}

TEST_F(BrokenLink, ItsLastOrderMayReplaceAPendingConnect) {
    const OtherRelay other;
    const OtherRelay moved("127.0.0.2");
    startPeerConnect(orderOf({.nToID = 8, .nTcpPort = other.nPort()}));
    breakLinkWithAnOrder({.nToID = 8, .nTcpPort = moved.nPort(), .sAddress = "127.0.0.2"});
    markLinkBroken();
    settleBrokenLink();
    EXPECT_EQ(1, ctOutboundConnectsPending.GetSize());
    EXPECT_TRUE(moved.bHasCaller());
}

TEST_F(BrokenLink, ItsLastOrderToConnectToAConnectedRelayIsConfirmedToNobody) {
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    breakLinkWithAnOrder({.nToID = 8});
    markLinkBroken();
    settleBrokenLink();
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_TRUE(csForwardQueue.empty()) << "the next log-in tells of all clients";
}

TEST_F(BrokenLink, ItsLastOrderToRegisterLeavesItsRequestForTheNextServer) {
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    breakLinkWithAnOrder({.code = rcUdpReg, .nToID = 8, .nUdpPort = 6900, .sTicket = ""});
    markLinkBroken();
    settleBrokenLink();
    EXPECT_EQ(1U, csForwardQueue.size());
}

}  // namespace
