#include "relayserver/orders/connect_order.h"

#include "base/clock.h"
#include "base/string_format.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/peers/register_udp.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ConnectOrder : public PeerTest {
  protected:
    static void giveOrder(const Order& order) { onConnectOrder(orderOf(order)); }

    const Peer server = openLink();
    const OtherRelay other;
};

TEST_F(ConnectOrder, ToConnectSaysEachStep) {
    giveOrder({.nToID = 8, .nTcpPort = other.nPort()});
    EXPECT_THAT(loggedLines(),
                ElementsAre("got ticket for relay peer 8\n", "debug: requestcode was connect\n",
                            "Using system default interface\n",
                            string_format("debug: connecting with relay peer 8 on tcp port %d\n",
                                          other.nPort())));
    EXPECT_TRUE(bIsPending(8));
    EXPECT_TRUE(other.bHasCaller());
    EXPECT_THAT(server.images(), IsEmpty());
}

TEST_F(ConnectOrder, ToConnectToItselfOpensNoSocket) {
    const int nBefore = nOpenDescriptors();
    giveOrder({.nToID = static_cast<int>(kOwnID), .nTcpPort = other.nPort()});
    EXPECT_THAT(loggedLines(),
                ElementsAre("got ticket for relay peer 1000\n", "debug: requestcode was connect\n",
                            "ERROR: ConnectOrder is telling relay 1000 to connect to itself - "
                            "ignoring to prevent self-connection loop\n"));
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_EQ(nBefore, nOpenDescriptors());
    EXPECT_FALSE(other.bHasCaller());
}

TEST_F(ConnectOrder, ToItselfIsSeenAlsoWhereTheIdIsNegativeAsASignedNumber) {
    nSenderID = 4000000000U;
    giveOrder({.nToID = static_cast<int>(4000000000U), .nTcpPort = other.nPort()});
    EXPECT_EQ(1U, nLoggedContaining("telling relay 4000000000 to connect to itself"));
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
}

TEST_F(ConnectOrder, ToAConnectedRelayMarksAndConfirmsIt) {
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    const int nBefore = nOpenDescriptors();
    giveOrder({.nToID = 8, .nTcpPort = other.nPort(), .nUdpPort = 6900});
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_EQ(htons(6900), authClient(8).nRelayUdpBasePort);
    sockaddr_in siReceives{};
    authClient(8).GetAudioRcvAddress(0, siReceives);
    EXPECT_EQ(htons(6900), siReceives.sin_port);
    EXPECT_EQ("WARNING: already connected to relay id 8, not initiating new connection\n",
              loggedLines().back());
    EXPECT_THAT(server.images(), ElementsAre(sConfirmation(8)));
    EXPECT_EQ("", sTicketOf(authClient(8))) << "that relay has no need of it";
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_EQ(nBefore, nOpenDescriptors());
    EXPECT_FALSE(other.bHasCaller());
}

TEST_F(ConnectOrder, ToAConnectedPeerConfirmsItEachTime) {
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    giveOrder({.nToID = 8});
    giveOrder({.nToID = 8});
    EXPECT_THAT(server.images(), ElementsAre(sConfirmation(8), sConfirmation(8)));
    EXPECT_EQ(1U, nLoggedContaining("Increased send buffer"));
}

TEST_F(ConnectOrder, ToAConnectedRelayIsNotConfirmedLaterWhileThereIsNoServer) {
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    server.stopReading();
    giveOrder({.nToID = 8});
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_EQ(1U, nLogged("socket broken sending message to connection server!\n"));
}

TEST_F(ConnectOrder, WithAnotherCodeIsOnlyNamed) {
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    giveOrder({.code = rcDisconnect, .nToID = 8, .nTcpPort = other.nPort(), .nUdpPort = 6900});
    giveOrder({.code = Orvex::RequestCode(7), .nToID = 9, .nTcpPort = other.nPort()});
    giveOrder({.code = Orvex::RequestCode(-1), .nToID = 9, .nTcpPort = other.nPort()});
    EXPECT_THAT(loggedLines(),
                ElementsAre("got ticket for relay peer 8\n",
                            "connect order net message had request code: DISCONNECT\n",
                            "got ticket for relay peer 9\n",
                            "connect order net message had request code: INVALID\n",
                            "got ticket for relay peer 9\n",
                            "connect order net message had request code: INVALID\n"));
    EXPECT_FALSE(bIsRelayPeer(authClient(8)));
    EXPECT_EQ(0, authClient(8).nRelayUdpBasePort);
    EXPECT_EQ("", sTicketOf(authClient(8)));
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_THAT(server.images(), IsEmpty());
}

class UdpOrder : public ConnectOrder {
  protected:
    UdpOrder() { openOwnAudio(); }
};

TEST_F(UdpOrder, OfAKnownIdRegistersAllProgramsUnderItsTicket) {
    const AudioPorts ports;
    const Peer peer = addAuthClientAt(8, "127.0.0.1");
    giveOrder({.code = rcUdpReg, .nToID = 8, .nUdpPort = ports.nBase(), .sTicket = "new"});
    EXPECT_EQ("new", sTicketOf(authClient(8)));
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_EQ("got ticket for relay peer 8\n", loggedLines().front());
    EXPECT_EQ(string_format("debug: registering udp with relay peer 8 on udp ports with base %d\n",
                            ports.nBase()),
              loggedLines().back());
    for (int nProgram = 0; nProgram < kAudioPrograms; ++nProgram) {
        const std::vector<std::string> datagrams = ports.received(nProgram);
        ASSERT_EQ(1U, datagrams.size()) << nProgram;
        EXPECT_EQ(7, datagrams[0][21]) << "receives, sends, calls back";
    }
    EXPECT_THAT(server.images(), IsEmpty());
}

TEST_F(UdpOrder, OfAnUnknownIdDoesNothing) {
    giveOrder({.code = rcUdpReg, .nToID = 8, .nTcpPort = other.nPort(), .nUdpPort = 6900});
    EXPECT_THAT(loggedLines(), ElementsAre("got ticket for relay peer 8\n"));
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_THAT(server.images(), IsEmpty());
}

TEST_F(UdpOrder, OfAConnectThatIsStillPendingDoesNothing) {
    giveOrder({.nToID = 8, .nTcpPort = other.nPort(), .sTicket = "first"});
    giveOrder({.code = rcUdpReg, .nToID = 8, .nUdpPort = 6900, .sTicket = "second"});
    EXPECT_EQ("first", sTicketOf(pending(8)));
    EXPECT_FALSE(bIsRelayPeer(pending(8)));
}

TEST_F(UdpOrder, MovesThePeersAudioToItsBase) {
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    authClient(8).StartRcvAudio(3, siOf("127.0.0.9", 1));
    giveOrder({.code = rcUdpReg, .nToID = 8, .nUdpPort = 6900});
    sockaddr_in siReceives{};
    authClient(8).GetAudioRcvAddress(3, siReceives);
    EXPECT_EQ(htons(6906), siReceives.sin_port);
    EXPECT_EQ(siOf("127.0.0.7", 0).sin_addr.s_addr, siReceives.sin_addr.s_addr);
}

TEST_F(UdpOrder, WithoutATicketAsksForOneButNotInATightCircle) {
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    giveOrder({.code = rcUdpReg, .nToID = 8, .nUdpPort = 6900, .sTicket = ""});
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    giveOrder({.code = rcUdpReg, .nToID = 8, .nUdpPort = 6900, .sTicket = ""});
    EXPECT_THAT(server.images(), ElementsAre(sTicketRequest(8)));
    EXPECT_EQ("last ticket request for udp reg to relay 8 still pending\n", loggedLines().back());
}

TEST_F(UdpOrder, WithATicketOf64BytesKeepsAllOfIt) {
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    const std::string sLongest(64, '\xFF');
    giveOrder({.code = rcUdpReg, .nToID = 8, .nUdpPort = 6900, .sTicket = sLongest});
    EXPECT_EQ(sLongest, sTicketOf(authClient(8)));
}

TEST_F(UdpOrder, OfId0OrANegativeIdFindsTheClientOfThatId) {
    const Peer peer0 = addAuthClientAt(0, "127.0.0.7");
    const Peer peerNegative = addAuthClientAt(-5, "127.0.0.8");
    giveOrder({.code = rcUdpReg, .nToID = 0, .nUdpPort = 6900});
    giveOrder({.code = rcUdpReg, .nToID = -5, .nUdpPort = 6900});
    EXPECT_TRUE(bIsRelayPeer(authClient(0)));
    EXPECT_TRUE(bIsRelayPeer(authClient(-5)));
    EXPECT_EQ(1U, nLogged("got ticket for relay peer -5\n"));
}

}  // namespace
