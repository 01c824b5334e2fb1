#include "relayserver/switching/client_messages.h"

#include "base/clock.h"
#include "genner/output/LogOutNetMessage.h"
#include "genner/output/LostConnectionNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "genner/output/TicketRequestNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/routes/RoutingCache.h"
#include "relayserver/sockets/epoll_set.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using Tessel_Routing::RouteEntry;
using Tessel_Routing::RoutingCache;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ClientMessages : public EngineTest {
  protected:
    ClientMessages() : server(openLink()), peer7(addAuthClient(7)) {}

    /// Client 7 has sent these messages; the relay notices.
    void receive(const std::vector<std::string>& images) const {
        for (const std::string& sMessage : images) {
            peer7.sendBytes(sFrame(sMessage));
        }
        readAndSwitch(authClient(7));
    }

    static std::string sResponse(unsigned nSender, long lCode) {
        Orvex::ResponseNetMessage rnm(nSender, Orvex::ReturnCode(lCode));
        rnm.ChangeSenderID(nSender);
        return std::string(rnm.frame().substr(1));
    }

    /// What asks the connection server for a ticket to register audio with a peer.
    static std::string sTicketRequest(int nPeerID) {
        Orvex::TicketRequestNetMessage trnm(nPeerID, rcUdpReg);
        return std::string(trnm.frame().substr(1));
    }

    static std::string sLogOut(unsigned nSender) {
        Orvex::LogOutNetMessage lonm;
        lonm.ChangeSenderID(nSender);
        return std::string(lonm.frame().substr(1));
    }

    static std::string sLoss(int nClientID) {
        Orvex::LostConnectionNetMessage lcnm(nClientID);
        return std::string(lcnm.frame().substr(1));
    }

    const Peer server;
    const Peer peer7;
};

TEST_F(ClientMessages, EachMessageRenewsTheTimeAndCountsItsBytes) {
    advanceClockForTest(10);
    receive({sImage(12, 7, 0, ""), sImage(kChat, 7, 0, "abcd")});
    long tLast = 0;
    authClient(7).GetLastMessageTime(tLast);
    EXPECT_EQ(kNow + 10, tLast);
    EXPECT_EQ(9U + 13U, authClient(7).GetTcpInputByteCounter());
}

TEST_F(ClientMessages, AMessageInAnothersNameIsIgnoredAndTheNextIsSwitched) {
    const Peer peer8 = addAuthClient(8);
    route(7, kChatPipe, {8});
    route(9, kChatPipe, {8});
    receive({sImage(kChat, 9, 0, "ab"), sImage(kChat, 7, 0, "cd")});
    EXPECT_THAT(peer8.images(), ElementsAre(sImage(kChat, 7, 0, "cd")));
    EXPECT_THAT(loggedLines(), ElementsAre("Message with invalid sender id string 9 and len 11 "
                                           "passed from client 7, ignoring message\n"));
    EXPECT_TRUE(bIsAdmitted(7));
    EXPECT_EQ(22U, authClient(7).GetTcpInputByteCounter());
}

TEST_F(ClientMessages, ANegativeSenderIsInvalidEvenFromARelayPeer) {
    makePeer(7);
    const Peer peer8 = addAuthClient(8);
    route(0x80000001U, kChatPipe, {8});
    receive({sImage(kChat, 0x80000001U, 0, "ab")});
    EXPECT_THAT(peer8.images(), IsEmpty());
    EXPECT_THAT(loggedLines(),
                ElementsAre("Message with invalid sender id string -2147483647 and len 11 passed "
                            "from client 7, ignoring message\n"));
}

TEST_F(ClientMessages, AMessageTooShortForAHeaderIsInvalid) {
    makePeer(7);
    receive({std::string("\3\7\0", 3), std::string("\2"), sImage(kChat, 7, 0, "").substr(0, 7)});
    EXPECT_THAT(loggedLines(), ElementsAre("Message with invalid sender id string -1 and len 3 "
                                           "passed from client 7, ignoring message\n",
                                           "Message with invalid sender id string -1 and len 1 "
                                           "passed from client 7, ignoring message\n",
                                           "Message with invalid sender id string -1 and len 7 "
                                           "passed from client 7, ignoring message\n"));
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(ClientMessages, ARelayPeerCarriesTheMessagesOfOthers) {
    makePeer(7);
    const Peer peer8 = addAuthClient(8);
    route(4711, kChatPipe, {8});
    receive({sImage(kChat, 4711, 0, "ab")});
    EXPECT_THAT(peer8.images(), ElementsAre(sImage(kChat, 4711, 0, "ab")));
}

TEST_F(ClientMessages, AMessageOfARelayPeerDoesNotGoOnToAnotherRelay) {
    makePeer(7);
    const Peer peer20 = addAuthClient(20);
    makePeer(20);
    route(4711, kChatPipe, {20});
    receive({sImage(kChat, 4711, 0, "ab")});
    EXPECT_THAT(peer20.images(), IsEmpty());
    EXPECT_EQ(1U, nLoggedContaining("suppressing possible relay loop"));
}

TEST_F(ClientMessages, AHeartbeatIsNotSwitched) {
    const Peer peer8 = addAuthClient(8);
    route(7, 0, {8});
    receive({sImage(12, 7, 0, "")});
    EXPECT_THAT(peer8.images(), IsEmpty());
    EXPECT_THAT(executedStatements(), IsEmpty());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ClientMessages, ACaptionIsSwitchedUnchanged) {
    const Peer peer8 = addAuthClient(8);
    route(7, 192, {8});
    const std::string sCaption = sImage(5, 7, 0, std::string("a\\\0b~", 5) + "x");
    receive({sCaption});
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption));
}

TEST_F(ClientMessages, ALoginOfAnAdmittedClientIsIgnored) {
    receive({sImage(1, 7, 0, "a~")});
    EXPECT_THAT(executedStatements(), IsEmpty());
    EXPECT_THAT(server.images(), IsEmpty());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ClientMessages, ALogOutDeletesTheClientFirstAndThenReachesTheConnectionServer) {
    receive({sLogOut(7)});
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_TRUE(peer7.bClosedByRelay());
    EXPECT_THAT(server.images(), ElementsAre(sLogOut(7)));
    EXPECT_THAT(loggedLines(), ElementsAre("Removing client table entry for address 0.0.0.0(0).\n",
                                           "received logout from client 7\n"));
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(ClientMessages, ALogOutEndsABatch) {
    const Peer peer8 = addAuthClient(8);
    route(7, kChatPipe, {8});
    receive({sImage(kChat, 7, 0, "ab"), sLogOut(7), sImage(kChat, 7, 0, "cd"), sLogOut(7)});
    EXPECT_THAT(peer8.images(), ElementsAre(sImage(kChat, 7, 0, "ab")));
    EXPECT_EQ(1U, server.images().size());
    EXPECT_EQ(1U, nLogged("received logout from client 7\n"));
}

TEST_F(ClientMessages, ALogOutWaitsWhileTheConnectionServerIsAway) {
    resetLinkStateForTest();
    receive({sLogOut(7)});
    ASSERT_EQ(1U, csForwardQueue.size());
    EXPECT_EQ(sFrame(sLogOut(7)), csForwardQueue.front()->frame());
}

TEST_F(ClientMessages, TheOkOfAnotherRelayMakesItAPeer) {
    receive({sResponse(7, 0)});
    EXPECT_TRUE(bIsRelayPeer(authClient(7)));
    EXPECT_EQ("received OK message from relay 7\n", loggedLines().front());
    EXPECT_EQ(1U, nLogged("debug: sending udp reg to other relay 7\n"));
    EXPECT_THAT(server.images(), ElementsAre(sTicketRequest(7)));
}

TEST_F(ClientMessages, ARejectedTicketIsForgottenAndTheConnectionStays) {
    makePeer(7);
    const unsigned char achTicket[16] = {1};
    authClient(7).SetTicket(achTicket, sizeof achTicket);
    receive({sResponse(7, 4)});
    EXPECT_TRUE(bIsAdmitted(7));
    unsigned char achLeft[Orvex::RelayClient::nMAX_TICKET_LEN];
    int nLen = -1;
    long tAge = 0;
    authClient(7).GetTicket(achLeft, nLen, tAge);
    EXPECT_EQ(0, nLen);
    EXPECT_EQ("relay-to-relay ticket rejected by 7\n", loggedLines().front());
    EXPECT_THAT(server.images(), ElementsAre(sTicketRequest(7)));
}

TEST_F(ClientMessages, AnyOtherResponseEndsARelayPeer) {
    makePeer(7);
    receive({sResponse(7, 2)});
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_THAT(loggedLines(),
                ElementsAre("recieved response message with code UNAUTHORIZED from client 7\n",
                            "Removing client table entry for address 0.0.0.0(0).\n"));
    EXPECT_THAT(server.images(), ElementsAre(sLoss(7)));
    ASSERT_EQ(1U, vRecentlyLost.size());
    EXPECT_EQ(7, vRecentlyLost.front()->GetClientID());
}

TEST_F(ClientMessages, AnyOtherResponseOfAnOrdinaryClientIsOnlyLogged) {
    receive({sResponse(7, 3), sImage(0, 7, 0, "1~nonsense~")});
    EXPECT_TRUE(bIsAdmitted(7));
    EXPECT_THAT(loggedLines(),
                ElementsAre("recieved response message with code NO CONTINUE from client 7\n",
                            "recieved response message with code INVALID from client 7\n"));
    EXPECT_THAT(server.images(), IsEmpty());
}

TEST_F(ClientMessages, ABrokenConnectionIsReportedAndRemembered) {
    ASSERT_EQ(0, shutdown(peer7.fd(), SHUT_WR));
    receive({});
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_THAT(loggedLines(),
                ElementsAre("Connection lost to user 7 at 0.0.0.0(0) : read returned EOF\n",
                            "Removing client table entry for address 0.0.0.0(0).\n"));
    EXPECT_THAT(server.images(), ElementsAre(sLoss(7)));
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(ClientMessages, WhatArrivedBeforeTheBreakIsSwitchedFirst) {
    const Peer peer8 = addAuthClient(8);
    route(7, kChatPipe, {8});
    peer7.sendBytes(sFrame(sImage(kChat, 7, 0, "ab")));
    ASSERT_EQ(0, shutdown(peer7.fd(), SHUT_WR));
    readAndSwitch(authClient(7));
    EXPECT_EQ(1U, peer8.images().size());
    ASSERT_TRUE(bIsAdmitted(7)) << "the end has an event of its own";
    readAndSwitch(authClient(7));
    EXPECT_FALSE(bIsAdmitted(7));
}

TEST_F(ClientMessages, ALogOutBeforeTheBreakIsNoLoss) {
    peer7.sendBytes(sFrame(sLogOut(7)));
    ASSERT_EQ(0, shutdown(peer7.fd(), SHUT_WR));
    readAndSwitch(authClient(7));
    EXPECT_THAT(server.images(), ElementsAre(sLogOut(7)));
    EXPECT_THAT(vRecentlyLost, IsEmpty());
    EXPECT_EQ(0U, nLoggedContaining("Connection lost"));
}

TEST_F(ClientMessages, AFailedSendEndsTheDequeuingForThisPass) {
    const Peer peer8 = addAuthClient(8);
    const Peer peer9 = addAuthClient(9);
    peer8.stopReading();
    route(7, kChatPipe, {8, 9});
    route(7, kCaptionPipe, {9});
    receive({sImage(kChat, 7, 0, "ab"), sImage(kCaption, 7, 0, "cd")});
    EXPECT_THAT(peer9.images(), ElementsAre(sImage(kChat, 7, 0, "ab")));
    ASSERT_TRUE(bTurnsWaiting());
    beginTurns();
    epoll_event epe{};
    ASSERT_TRUE(bNextTurn(epe));
    EXPECT_EQ(fdOf(7), nDescriptorOf(epe));
    readAndSwitch(authClient(7));
    EXPECT_THAT(peer9.images(), ElementsAre(sImage(kCaption, 7, 0, "cd")));
    EXPECT_FALSE(bTurnsWaiting());
}

TEST_F(ClientMessages, AFailedSendBeforeABreakLeavesTheBreakForTheNextPass) {
    const Peer peer8 = addAuthClient(8);
    peer8.stopReading();
    route(7, kChatPipe, {8});
    peer7.sendBytes(sFrame(sImage(kChat, 7, 0, "ab")));
    ASSERT_EQ(0, shutdown(peer7.fd(), SHUT_WR));
    readAndSwitch(authClient(7));
    EXPECT_TRUE(bIsAdmitted(7));
    readAndSwitch(authClient(7));
    EXPECT_FALSE(bIsAdmitted(7));
}

TEST_F(ClientMessages, ARouteToItselfThatFailsRemovesTheClientWhileItsMessageIsSwitched) {
    const Peer peer8 = addAuthClient(8);
    route(7, kChatPipe, {7, 8});
    peer7.sendBytes(sFrame(sImage(kChat, 7, 0, "ab")));
    peer7.sendBytes(sFrame(sImage(kChat, 7, 0, "cd")));
    peer7.stopReading();
    readAndSwitch(authClient(7));
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_THAT(peer8.images(), ElementsAre(sImage(kChat, 7, 0, "ab"), sImage(kChat, 7, 0, "cd")));
    EXPECT_THAT(server.images(), ElementsAre(sLoss(7)));
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(ClientMessages, ADirectMessageToItselfThatFailsRemovesTheClient) {
    peer7.sendBytes(sFrame(sImage(9, 7, 7, "ab")));
    peer7.sendBytes(sFrame(sImage(kChat, 7, 0, "cd")));
    peer7.stopReading();
    readAndSwitch(authClient(7));
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_THAT(server.images(), ElementsAre(sLoss(7)));
}

TEST_F(ClientMessages, LosingTheConnectionServerWithinABatchQueuesTheRest) {
    server.stopReading();
    receive({sImage(232, 7, 0, "ab"), sImage(232, 7, 0, "cd"), sLogOut(7)});
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ(3U, csForwardQueue.size());
    EXPECT_EQ(1U, nLogged("socket broken sending message to connection server!\n"));
}

TEST_F(ClientMessages, AMessageInPiecesIsSwitchedWhenItIsWhole) {
    const Peer peer8 = addAuthClient(8);
    route(7, kChatPipe, {8});
    const std::string sWhole = sFrame(sImage(kChat, 7, 0, "ab"));
    for (const char ch : sWhole) {
        EXPECT_THAT(peer8.images(), IsEmpty());
        peer7.sendBytes(std::string(1, ch));
        readAndSwitch(authClient(7));
    }
    EXPECT_THAT(peer8.images(), ElementsAre(sImage(kChat, 7, 0, "ab")));
}

TEST_F(ClientMessages, AFrameOf509BytesPassesUnchanged) {
    const Peer peer8 = addAuthClient(8);
    route(7, kChatPipe, {8});
    const std::string sLargest = sImage(kChat, 7, 0, std::string(499, 'x') + "~");
    receive({sLargest});
    EXPECT_THAT(peer8.images(), ElementsAre(sLargest));
}

TEST_F(ClientMessages, AFrameOf509BytesWithoutAPadGoesNowhereAndCostsNobody) {
    const Peer peer8 = addAuthClient(8);
    route(7, kChatPipe, {8});
    receive({sImage(kChat, 7, 0, std::string(500, 'x')), sImage(kChat, 7, 0, "ab")});
    EXPECT_THAT(peer8.images(), ElementsAre(sImage(kChat, 7, 0, "ab")));
    EXPECT_EQ(2, ctAuthClientTable.GetSize());
}

}  // namespace
