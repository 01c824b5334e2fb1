#include "relayserver/admission/loose_client.h"

#include <sys/socket.h>

#include "base/clock.h"
#include "genner/output/ConnectConfirmNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "genner/output/StatusKeyPostNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/settings/settings.h"
#include "relayserver/sockets/epoll_set.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/admission/ticket_maker.h"
#include "tests/unit/relayserver/engine_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kRemoved = "Removing client table entry for address 0.0.0.0(0).\n";

class LooseClient : public EngineTest {
  protected:
    LooseClient() {
        makeSessionKey();
        loggedLines().clear();
    }

    /// The one loose client.
    static Orvex::RelayClient& loose() {
        EXPECT_TRUE(ctLooseClientTable.bBeginTraverse());
        return ctLooseClientTable.current();
    }
    static bool bIsLoose() { return ctLooseClientTable.GetSize() == 1; }

    static std::string sLogin(unsigned nClientID) {
        return sFrame(sLoginImage(nClientID, sEncryptedTicket(nClientID, kNow)));
    }
    static std::string sChatter(size_t nImageBytes) {
        return sFrame(sImage(3, 0, 0, std::string(nImageBytes - 9, 'x')));
    }
    static std::string sAnswer(int nReturnCode) {
        Orvex::ResponseNetMessage rnm(nSenderID, Orvex::ReturnCode(nReturnCode));
        return std::string(rnm.frame());
    }
    /// Bytes in chunks that one pass reads.
    static void sendAndStep(const Peer& peer, const std::string& sBytes) {
        for (size_t nAt = 0; nAt < sBytes.size() && bIsLoose(); nAt += 1000) {
            peer.sendBytes(sBytes.substr(nAt, 1000));
            stepLooseClient(loose());
        }
    }
};

TEST_F(LooseClient, AValidTicketAdmits) {
    nSenderID = 4711;
    const Peer peer = addLooseClient();
    advanceClockForTest(9);
    peer.sendBytes(sLogin(7));
    stepLooseClient(loose());
    EXPECT_TRUE(bIsAdmitted(7));
    EXPECT_FALSE(bIsLoose());
    EXPECT_EQ(sAnswer(0), peer.sReceived());
    EXPECT_THAT(loggedLines(), ElementsAre("authenticated ticket for client 7\n"));
    long lLastMessage = 0;
    authClient(7).GetLastMessageTime(lLastMessage);
    EXPECT_EQ(kNow + 9, lLastMessage);
}

TEST_F(LooseClient, AnAdmissionIsConfirmedToTheConnectionServer) {
    const Peer server = openLink();
    const Peer peer = addLooseClient();
    peer.sendBytes(sLogin(7));
    stepLooseClient(loose());
    Orvex::ConnectConfirmNetMessage ccnm(7);
    EXPECT_EQ(ccnm.frame(), server.sReceived());
}

TEST_F(LooseClient, AnAdmissionWithoutALinkIsNotQueued) {
    const Peer peer = addLooseClient();
    peer.sendBytes(sLogin(7));
    stepLooseClient(loose());
    EXPECT_TRUE(csForwardQueue.empty());
}

TEST_F(LooseClient, WavecastIsAnnouncedBehindTheOK) {
    bWavecastServer = true;
    const Peer peer = addLooseClient();
    peer.sendBytes(sLogin(7));
    stepLooseClient(loose());
    Orvex::StatusKeyPostNetMessage skpnm("WavecastServer", "true");
    EXPECT_EQ(sAnswer(0) + std::string(skpnm.frame()), peer.sReceived());
}

TEST_F(LooseClient, TheNewestConnectionOfAnIdWins) {
    const Peer server = openLink();
    const Peer older = addAuthClient(7);
    const int fdOlder = fdOf(7);
    const Peer newer = addLooseClient();
    newer.sendBytes(sLogin(7));
    stepLooseClient(loose());
    EXPECT_TRUE(older.bClosedByRelay());
    EXPECT_TRUE(bIsAdmitted(7));
    EXPECT_NE(fdOlder, fdOf(7));
    EXPECT_EQ(1, ctAuthClientTable.GetSize());
    EXPECT_THAT(loggedLines(), ElementsAre("authenticated ticket for client 7\n",
                                           "closing older connection with ID 7\n", kRemoved));
    Orvex::ConnectConfirmNetMessage ccnm(7);
    EXPECT_EQ(ccnm.frame(), server.sReceived()) << "the older one is no loss";
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(LooseClient, AnAdmissionIsNoLongerALoss) {
    const Orvex::LostConnectionNetMessage lcnm(7);
    AddToRecentlyLost(&lcnm);
    const Peer peer = addLooseClient();
    peer.sendBytes(sLogin(7));
    stepLooseClient(loose());
    EXPECT_THAT(vRecentlyLost, IsEmpty());
    EXPECT_EQ(1U, nLogged("Removed recently lost message on client 7 from re-send list (1 "
                          "instances)\n"));
}

TEST_F(LooseClient, MessagesBehindTheLoginAreForTheAdmittedClient) {
    const Peer peer = addLooseClient();
    peer.sendBytes(sLogin(7) + sFrame(sImage(12, 7, 0, "")));
    stepLooseClient(loose());
    EXPECT_EQ(0U, nLoggedContaining("unauthorized client"));
    EXPECT_TRUE(bTurnsWaiting());
    EXPECT_TRUE(authClient(7).GetMessageSocket()->bHasMoreInput());
}

TEST_F(LooseClient, AnInvalidTicketIsAnsweredAndTheClientDropped) {
    nSenderID = 4711;
    const Peer peer = addLooseClient();
    peer.sendBytes(sFrame(sLoginImage(7, sEncryptedTicket(7, kNow - 300))));
    stepLooseClient(loose());
    EXPECT_EQ(sAnswer(2), peer.sReceived());
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_FALSE(bIsLoose());
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_THAT(loggedLines(), ElementsAre("client ID 7 sent invalid ticket\n", kRemoved));
}

TEST_F(LooseClient, AnInvalidTicketLeavesTheAdmittedClientOfThatIdAlone) {
    const Peer admitted = addAuthClient(7);
    const Peer peer = addLooseClient();
    peer.sendBytes(sFrame(sLoginImage(7, sEncryptedTicket(8, kNow))));
    stepLooseClient(loose());
    EXPECT_TRUE(bIsAdmitted(7));
    EXPECT_FALSE(admitted.bClosedByRelay());
}

TEST_F(LooseClient, ARefusalThatDoesNotGoOutIsLogged) {
    const Peer peer = addLooseClient();
    peer.sendBytes(sFrame(sLoginImage(7, "")));
    peer.stopReading();
    stepLooseClient(loose());
    EXPECT_THAT(loggedLines(),
                ElementsAre("ticket rejected: improper length\n",
                            "WARNING: error sending authorization failed msg to client - was "
                            "closing anyway\n",
                            "client ID 7 sent invalid ticket\n", kRemoved));
    EXPECT_FALSE(bIsLoose());
}

TEST_F(LooseClient, AnOKThatDoesNotGoOutEndsTheClient) {
    const Peer server = openLink();
    const Peer peer = addLooseClient();
    peer.sendBytes(sLogin(7));
    peer.stopReading();
    stepLooseClient(loose());
    EXPECT_THAT(loggedLines(), ElementsAre("authenticated ticket for client 7\n",
                                           "error sending OK response\n", kRemoved));
    EXPECT_FALSE(bIsLoose());
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ("", server.sReceived());
}

TEST_F(LooseClient, OtherMessagesAreDiscarded) {
    const Peer peer = addLooseClient();
    peer.sendBytes(sFrame(sImage(0xAB, 0, 0, "")) + sFrame(sImage(3, 0, 0, "")));
    stepLooseClient(loose());
    EXPECT_TRUE(bIsLoose());
    EXPECT_THAT(
        loggedLines(),
        ElementsAre(
            "Message type 0xab received from unauthorized client at 0.0.0.0(0)- discarded\n",
            "Message type 0x03 received from unauthorized client at 0.0.0.0(0)- discarded\n"));
    EXPECT_EQ(18U, loose().GetTcpInputByteCounter());
    EXPECT_EQ("", peer.sReceived());
}

TEST_F(LooseClient, ATicketBehindOtherMessagesStillAdmits) {
    const Peer peer = addLooseClient();
    peer.sendBytes(sFrame(sImage(3, 0, 0, "")) + sLogin(7));
    stepLooseClient(loose());
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(LooseClient, ATicketMayArriveInPieces) {
    const Peer peer = addLooseClient();
    const std::string sBytes = sLogin(7);
    for (const char chByte : sBytes) {
        ASSERT_TRUE(bIsLoose());
        peer.sendBytes(std::string(1, chByte));
        stepLooseClient(loose());
    }
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(LooseClient, TheOldLoginOnlyEndsThePass) {
    const Peer peer = addLooseClient();
    peer.sendBytes(sFrame(sImage(1, 0, 0, "")) + sLogin(7));
    stepLooseClient(loose());
    EXPECT_TRUE(bIsLoose());
    EXPECT_THAT(loggedLines(), ElementsAre("log in net message recieved from tessel1 client\n"));
    EXPECT_EQ("", peer.sReceived());
    EXPECT_TRUE(bTurnsWaiting()) << "what stands behind it is handled in the next pass";
    stepLooseClient(loose());
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(LooseClient, TheOldLoginSkipsTheByteBudgetOfItsPass) {
    const Peer peer = addLooseClient();
    loose().IncrementTcpInputByteCounter(20000);
    peer.sendBytes(sFrame(sImage(1, 0, 0, "")));
    stepLooseClient(loose());
    EXPECT_TRUE(bIsLoose());
    EXPECT_FALSE(bTurnsWaiting()) << "nothing is left to handle";
}

TEST_F(LooseClient, AClientThatLeavesBehindTheOldLoginIsDroppedInALaterPass) {
    Peer peer = addLooseClient();
    peer.sendBytes(sFrame(sImage(1, 0, 0, "")));
    peer.close();
    stepLooseClient(loose());
    EXPECT_TRUE(bTurnsWaiting());
    stepLooseClient(loose());
    EXPECT_FALSE(bIsLoose());
}

TEST_F(LooseClient, TwentyThousandBytesAreWithinTheBudget) {
    const Peer peer = addLooseClient();
    std::string sBytes;
    for (int i = 0; i < 40; ++i) {
        sBytes += sChatter(499);  // 19960 in all
    }
    sendAndStep(peer, sBytes + sChatter(25) + sChatter(15));
    EXPECT_TRUE(bIsLoose());
    EXPECT_EQ(20000U, loose().GetTcpInputByteCounter());
}

TEST_F(LooseClient, OneByteMoreEndsTheClient) {
    const Peer peer = addLooseClient();
    std::string sBytes;
    for (int i = 0; i < 40; ++i) {
        sBytes += sChatter(499);
    }
    sendAndStep(peer, sBytes + sChatter(41));  // 20001
    EXPECT_FALSE(bIsLoose());
    EXPECT_TRUE(peer.bClosedByRelay());
    ASSERT_GE(loggedLines().size(), 2U);
    EXPECT_EQ(
        "WARNING: input TCP count on pre-log-in client at 0.0.0.0(0)  over limit : 20001 "
        "bytes\n",
        loggedLines()[loggedLines().size() - 2]);
    EXPECT_EQ(kRemoved, loggedLines().back());
}

TEST_F(LooseClient, TheBudgetIsCheckedBehindTheMessagesOfAPass) {
    const Peer peer = addLooseClient();
    loose().IncrementTcpInputByteCounter(20000);
    peer.sendBytes(sChatter(9) + sLogin(7));
    stepLooseClient(loose());
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(LooseClient, AClosedConnectionIsLoggedWithItsReason) {
    Peer peer = addLooseClient();
    const int fd = loose().GetMessageSocket()->getMsgSockFileDesc();
    peer.close();
    stepLooseClient(loose());
    EXPECT_FALSE(bIsLoose());
    EXPECT_THAT(loggedLines(), ElementsAre("Socket connection broken fd " + std::to_string(fd) +
                                               ", with client 0.0.0.0(0) : read returned EOF\n",
                                           kRemoved));
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(LooseClient, WhatCameBeforeTheEndIsStillHandled) {
    Peer peer = addLooseClient();
    peer.sendBytes(sFrame(sImage(3, 0, 0, "")));
    peer.close();
    stepLooseClient(loose());
    EXPECT_EQ(1U, nLoggedContaining("Message type 0x03"));
    EXPECT_EQ(1U, nLoggedContaining("Socket connection broken"));
    EXPECT_FALSE(bIsLoose());
}

TEST_F(LooseClient, AZeroLengthByteEmptiesTheBufferOnly) {
    const Peer peer = addLooseClient();
    peer.sendBytes(std::string(1, '\0') + "garbage");
    stepLooseClient(loose());
    EXPECT_TRUE(bIsLoose());
    EXPECT_THAT(loggedLines(), IsEmpty());
    peer.sendBytes(sLogin(7));
    stepLooseClient(loose());
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(LooseClient, AShortImageDoesNoHarm) {
    const Peer peer = addLooseClient();
    peer.sendBytes(std::string("\x01\x13", 2));  // a log-in of one byte
    stepLooseClient(loose());
    EXPECT_EQ(sAnswer(2), peer.sReceived());
    EXPECT_TRUE(peer.bClosedByRelay());
    EXPECT_EQ(1U, nLogged("client ID 0 sent invalid ticket\n"));
}

}  // namespace
