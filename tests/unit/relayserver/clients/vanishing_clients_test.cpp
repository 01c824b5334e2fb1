/// Clients that go away in the middle: while a message is switched to them, while a table is
/// walked, while the last orders of a link that broke are carried out. Sanitizers see what is
/// touched then.
#include <sys/socket.h>

#include "base/clock.h"
#include "relayserver/RoutingCache.h"
#include "relayserver/audio/register_udp.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/cslink/recently_lost.h"
#include "relayserver/loop/client_timers.h"
#include "relayserver/peers/connect_order.h"
#include "relayserver/peers/pending_connects.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/switching/client_messages.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int kChat = 3;
constexpr int kChatPipe = 128;

class VanishingClients : public PeerTest {
  protected:
    /// The link is broken, which the next send finds out; its server's last message is for `nID`,
    /// which takes nothing any more.
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
    Peer addDeaf(int nClientID) const {
        Peer peer = addAuthClientAt(nClientID, "127.0.0.7");
        peer.stopReading();
        return peer;
    }
    static void route(unsigned nFrom, std::vector<unsigned> to) {
        Tessel_Routing::RoutingCache::Instance()->Add(
            Tessel_Routing::RouteEntry(nFrom, kChatPipe, std::move(to)));
    }

    const Peer server = openLink();
};

TEST_F(VanishingClients, TheNextOfAWalkGoesWhileTheCurrentOneIsReported) {
    const Peer first = addAuthClient(7);
    const Peer second = addDeaf(8);
    const Peer third = addAuthClient(9);
    breakLinkWithAMessageFor({8});
    dropIdleClients(kNow + 16);
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ(3U, vRecentlyLost.size());
    EXPECT_EQ(1U, nLoggedContaining("Dropping connect to client ID 7"));
    EXPECT_EQ(0U, nLoggedContaining("Dropping connect to client ID 8"));
    EXPECT_EQ(1U, nLoggedContaining("Dropping connect to client ID 9"));
    EXPECT_EQ(0U, nLoggedContaining("out of bounds"));
}

TEST_F(VanishingClients, TheCurrentOneOfAWalkGoesWhileItIsReported) {
    const Peer first = addDeaf(7);
    const Peer second = addAuthClient(8);
    breakLinkWithAMessageFor({7});
    dropIdleClients(kNow + 16);
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    (void)second.sReceived();
    EXPECT_TRUE(second.bClosedByRelay());
    EXPECT_EQ(2U, nLoggedContaining("Removing client table entry")) << "each goes once";
}

TEST_F(VanishingClients, AllOthersGoWhileOneIsCleanedUpForItsHeartbeat) {
    const Peer first = addDeaf(7);
    const Peer second = addDeaf(8);
    const Peer third = addDeaf(9);
    breakLinkWithAMessageFor({9, 8, 7});
    checkInputAndSendHeartbeats(kNow);
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ(0U, nLoggedContaining("out of bounds"));
}

TEST_F(VanishingClients, APeerGoesWhileAllPeersAreRegisteredAnew) {
    const Peer first = addDeaf(7);
    const Peer second = addDeaf(8);
    const Peer third = addAuthClientAt(9, "127.0.0.7");
    for (const int nPeerID : {7, 8, 9}) {
        MarkAsRelay(authClient(nPeerID));
    }
    breakLinkWithAMessageFor({7, 8});
    loggedLines().clear();
    EXPECT_TRUE(ReregisterRelayPeers());
    EXPECT_EQ(1, ctAuthClientTable.GetSize());
    EXPECT_EQ(0U, nLoggedContaining("registration to client 8"));
    EXPECT_EQ(1U, nLoggedContaining("registration to client 9"));
    EXPECT_EQ(0U, nLoggedContaining("stepped out of range"));
}

TEST_F(VanishingClients, APeerGoesWhileOwedRegistrationsAreTried) {
    const Peer first = addDeaf(7);
    const Peer second = addDeaf(8);
    const Peer third = addAuthClientAt(9, "127.0.0.7");
    for (const int nPeerID : {7, 8, 9}) {
        authClient(nPeerID).bUdpRegistrationOwed = true;
    }
    breakLinkWithAMessageFor({7, 8});
    retryOwedRegistrations(kNow);
    EXPECT_EQ(1, ctAuthClientTable.GetSize());
    EXPECT_EQ(1U, nLoggedContaining("registration to client 9"));
}

TEST_F(VanishingClients, ADestinationGoesWhileAnotherIsCleanedUp) {
    const Peer sender = addAuthClient(7);
    const Peer first = addDeaf(8);
    const Peer second = addDeaf(9);
    const Peer third = addAuthClient(10);
    route(7, {8, 9, 10});
    breakLinkWithAMessageFor({9});
    sender.sendBytes(sFrame(sImage(kChat, 7, 0, "ab")));
    readAndSwitch(authClient(7));
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_FALSE(bIsAdmitted(9));
    EXPECT_THAT(third.images(), ElementsAre(sImage(kChat, 7, 0, "ab")));
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(VanishingClients, TheSenderGoesWhileADestinationIsCleanedUp) {
    const Peer sender = addAuthClient(7);
    const Peer destination = addDeaf(8);
    route(7, {8});
    breakLinkWithAMessageFor({7});
    sender.sendBytes(sFrame(sImage(kChat, 7, 0, "ab")) + sFrame(sImage(kChat, 7, 0, "cd")));
    sender.stopReading();
    readAndSwitch(authClient(7));
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ(2U, vRecentlyLost.size());
}

TEST_F(VanishingClients, ARelayPeerGoesWhileItsMessageIsSwitched) {
    const Peer peer = addAuthClientAt(7, "127.0.0.7");
    const Peer destination = addDeaf(8);
    MarkAsRelay(authClient(7));
    route(4711, {8});
    breakLinkWithAMessageFor({7});
    peer.sendBytes(sFrame(sImage(kChat, 4711, 0, "ab")) + sFrame(sImage(kChat, 4711, 0, "cd")));
    peer.stopReading();
    readAndSwitch(authClient(7));
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
}

TEST_F(VanishingClients, AnExistingPeerGoesWhileItIsConfirmed) {
    const Peer peer = addDeaf(8);
    breakLinkWithAMessageFor({8});
    onConnectOrder(orderOf({.nToID = 8}));
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
}

TEST_F(VanishingClients, AnExistingPeerGoesWhileAPendingConnectGivesWayToIt) {
    const OtherRelay other;
    startPeerConnect(orderOf({.nToID = 8, .nTcpPort = other.nPort()}));
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    breakLinkWithAnOrder({.nToID = 8, .nTcpPort = other.nPort()});
    shutdown(fdOf(8), SHUT_RDWR);  // the last order finds it
    offerReady();
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_LE(ctAuthClientTable.GetSize(), 1);
}

TEST_F(VanishingClients, APendingConnectIsReplacedByTheLastOrderOfABrokenLink) {
    const OtherRelay other;
    const OtherRelay moved("127.0.0.2");
    const Peer client = addAuthClient(7);
    startPeerConnect(orderOf({.nToID = 8, .nTcpPort = other.nPort()}));
    breakLinkWithAnOrder({.nToID = 8, .nTcpPort = moved.nPort(), .sAddress = "127.0.0.2"});
    CleanBadSocket(fdOf(7));
    EXPECT_EQ(1, ctOutboundConnectsPending.GetSize());
    EXPECT_TRUE(moved.bHasCaller());
    offerReady();
    EXPECT_TRUE(bIsAdmitted(8));
}

TEST_F(VanishingClients, ALastOrderToConnectToAConnectedRelayIsConfirmedToNobody) {
    const Peer client = addAuthClient(7);
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    breakLinkWithAnOrder({.nToID = 8});
    CleanBadSocket(fdOf(7));
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_TRUE(csForwardQueue.empty()) << "the next log-in tells of all clients";
}

TEST_F(VanishingClients, ALastOrderToRegisterLeavesItsRequestForTheNextServer) {
    const Peer client = addAuthClient(7);
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    breakLinkWithAnOrder({.nCode = kUdpReg, .nToID = 8, .nUdpPort = 6900, .sTicket = ""});
    CleanBadSocket(fdOf(7));
    EXPECT_EQ(1U, csForwardQueue.size());
}

TEST_F(VanishingClients, APeerThatComesBackUnderItsIdLeavesNothingOfTheOld) {
    const Peer old = addAuthClientAt(8, "127.0.0.7");
    namePeerPort(authClient(8), 6900);
    MarkAsRelay(authClient(8));
    DeleteClient(ctAuthClientTable, authClient(8));
    const Peer again = addAuthClientAt(8, "127.0.0.7");
    EXPECT_FALSE(bIsRelayPeer(authClient(8)));
    EXPECT_EQ(0, authClient(8).nRelayUdpBasePort);
    EXPECT_EQ("", sTicketOf(authClient(8)));
}

}  // namespace
