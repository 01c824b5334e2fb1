/// Orders about other relays, as they come from the connection server.
#include <sys/socket.h>

#include "relayserver/clients/client_tables.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/loop/event_loop.h"
#include "relayserver/orders/cs_messages.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using testing::ElementsAre;

namespace {

class CsOrders : public PeerTest {
  protected:
    void give(const Order& order) const {
        Orvex::ConnectOrderNetMessage conm = orderOf(order);
        server.send(conm);
    }

    const Peer server = openLink();
    const OtherRelay other;
};

TEST_F(CsOrders, AreCarriedOut) {
    give({.nToID = 8, .nTcpPort = other.nPort(), .nUdpPort = 6900, .sTicket = "a ticket"});
    offerReady();
    EXPECT_EQ("got ticket for relay peer 8\n", loggedLines().front());
    EXPECT_EQ("a ticket", sTicketOf(pending(8)));
    EXPECT_EQ(htons(6900), pending(8).nRelayUdpBasePort);
}

TEST_F(CsOrders, AreCarriedOutInTheirOrder) {
    const Peer known = addAuthClientAt(9, "127.0.0.7");
    give({.nToID = 8, .nTcpPort = other.nPort()});
    give({.code = rcUdpReg, .nToID = 9, .nUdpPort = 6900, .sTicket = ""});
    give({.nToID = 9});
    offerReady();
    EXPECT_TRUE(bIsPending(8));
    EXPECT_THAT(server.images(), ElementsAre(sTicketRequest(9), sConfirmation(9)));
}

TEST_F(CsOrders, MayCarryATicketWithEveryByte) {
    std::string sTicket;
    for (int i = 0; i < 64; ++i) {
        sTicket += static_cast<char>(i * 4 + (i == 0 ? 0 : 2));
    }
    sTicket[1] = '~';
    sTicket[2] = '\\';
    give({.nToID = 8, .nTcpPort = other.nPort(), .sTicket = sTicket});
    offerReady();
    const Peer there = other.acceptRelay();
    EXPECT_EQ(sTicket, sTicketOf(pending(8)));
    offerReady();
    EXPECT_THAT(there.images(), ElementsAre(sOwnLogin(sTicket)));
}

TEST_F(CsOrders, InTheNameOfANegativeSenderAreIgnored) {
    Orvex::ConnectOrderNetMessage conm = orderOf({.nToID = 8, .nTcpPort = other.nPort()});
    conm.ChangeSenderID(0x80000001U);
    server.send(conm);
    offerReady();
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    EXPECT_EQ(1U, nLoggedContaining("Connserver message with invalid sender id string"));
}

TEST_F(CsOrders, CutOffInTheMiddleDoNoHarm) {
    Orvex::ConnectOrderNetMessage conm = orderOf({.nToID = 8, .nTcpPort = other.nPort()});
    const std::string sWhole(conm.frame().substr(1));
    for (size_t nLen = 9; nLen < sWhole.size(); ++nLen) {
        onServerMessage(sWhole.data(), static_cast<int>(nLen));
    }
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
}

TEST_F(CsOrders, FromALinkThatBreaksRightBehindThemStillCount) {
    give({.nToID = 8, .nTcpPort = other.nPort()});
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_WR));
    offerReady();
    EXPECT_TRUE(bIsPending(8));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
}

}  // namespace
