#include "relayserver/cslink/forward_queue.h"

#include "genner/output/ConnectConfirmNetMessage.h"
#include "genner/output/LostConnectionNetMessage.h"
#include "relayserver/cslink/link_state.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using Orvex::NetMessage;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ForwardQueue : public EngineTest {
  protected:
    static int nForward(const std::string& sImage) {
        NetMessage nmMessage(sImage.data(), static_cast<int>(sImage.size()));
        return ForwardToCS(nmMessage);
    }

    /// A message of which the connection server can tell the number.
    static std::string sNumbered(int nNumber) {
        return sImage(232, 7, 0, std::to_string(100 + nNumber) + "~");
    }

    static std::string sQueued(int nMessages) {
        return "TRACE: connection to CS not active, " + std::to_string(nMessages) +
               " messages queued\n";
    }

    static void queue(int nMessages) {
        for (int nNumber = 0; nNumber < nMessages; ++nNumber) {
            EXPECT_EQ(0, nForward(sNumbered(nNumber)));
        }
    }

    static std::string sCleared(int nLeft) {
        return "TRACE: cleared CS queue to " + std::to_string(nLeft) + " messages\n";
    }
};

TEST_F(ForwardQueue, SendsAtOnceWhileLoggedIn) {
    const Peer server = openLink();
    EXPECT_EQ(14, nForward(sNumbered(0)));
    EXPECT_THAT(server.images(), ElementsAre(sNumbered(0)));
    EXPECT_TRUE(csForwardQueue.empty());
    EXPECT_EQ(sFrame(sNumbered(0)), nmLastSentToCS.frame());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ForwardQueue, QueuesBeforeTheLoginIsComplete) {
    const Peer server = openLink();
    nConnectionStage = WAITING_FOR_LOGIN_RESPONSE;
    EXPECT_EQ(0, nForward(sNumbered(0)));
    EXPECT_EQ(1U, csForwardQueue.size());
    EXPECT_THAT(server.images(), IsEmpty());
}

TEST_F(ForwardQueue, TracesEachDoublingOfTheQueue) {
    queue(100);
    EXPECT_THAT(loggedLines(), ElementsAre(sQueued(2), sQueued(3), sQueued(5), sQueued(9),
                                           sQueued(17), sQueued(33), sQueued(65)));
    EXPECT_EQ(100U, csForwardQueue.size());
    EXPECT_EQ(128U, queueLogPrintThreshold);
}

TEST_F(ForwardQueue, SendsWhatWaitsInItsOrder) {
    queue(3);
    loggedLines().clear();
    const Peer server = openLink();
    EXPECT_EQ(0, SendCSQueue());
    EXPECT_THAT(server.images(), ElementsAre(sNumbered(0), sNumbered(1), sNumbered(2)));
    EXPECT_THAT(
        loggedLines(),
        ElementsAre("TRACE: have collected 3 messages to de-queue to server\n", sCleared(0)));
    EXPECT_EQ(1U, queueLogPrintThreshold);
}

TEST_F(ForwardQueue, StopsAtTheFirstMessageThatDoesNotGetThrough) {
    queue(3);
    const Peer server = openLink();
    server.stopReading();
    loggedLines().clear();
    EXPECT_EQ(3, SendCSQueue());
    EXPECT_EQ(1U, nLogged("socket broken sending message to connection server!\n"));
    EXPECT_EQ(sCleared(3), loggedLines().back());
    EXPECT_EQ(4U, queueLogPrintThreshold);
    EXPECT_EQ(sFrame(sNumbered(1)), csForwardQueue.front()->frame()) << "the failed one is last";
    EXPECT_EQ(sFrame(sNumbered(0)), csForwardQueue.back()->frame());
    loggedLines().clear();
    queue(1);
    EXPECT_THAT(loggedLines(), IsEmpty());
    queue(1);
    EXPECT_THAT(loggedLines(), ElementsAre(sQueued(5)));
}

TEST_F(ForwardQueue, AGoodSendRestartsTheTraces) {
    queueLogPrintThreshold = 64;
    const Peer server = openLink();
    EXPECT_LT(0, nForward(sNumbered(0)));
    EXPECT_EQ(1U, queueLogPrintThreshold);
}

TEST_F(ForwardQueue, AMessageThatBreaksTheLinkIsQueued) {
    const Peer server = openLink();
    server.stopReading();
    EXPECT_EQ(0, nForward(sNumbered(0)));
    EXPECT_THAT(loggedLines(),
                ElementsAre("socket broken sending message to connection server!\n"));
    EXPECT_EQ(1U, csForwardQueue.size());
    EXPECT_TRUE(bLinkMarkedBroken());
    EXPECT_EQ(sFrame(sNumbered(0)), nmLastSentToCS.frame());
}

TEST_F(ForwardQueue, ConfirmationsAndLossesAreNeverQueued) {
    Orvex::ConnectConfirmNetMessage ccnm(7);
    EXPECT_EQ(0, ForwardToCS(ccnm));
    Orvex::LostConnectionNetMessage lcnm(7);
    EXPECT_EQ(0, ForwardToCS(lcnm));
    EXPECT_EQ(0, nForward(sImage(228, 7, 0, "")));
    EXPECT_EQ(0, nForward(sImage(229, 7, 0, "")));
    EXPECT_TRUE(csForwardQueue.empty());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ForwardQueue, EveryOtherTypeIsQueued) {
    size_t nExpected = 0;
    for (int nType = 0; nType < 256; ++nType) {
        EXPECT_EQ(0, nForward(sImage(nType, 7, 0, "")));
        nExpected += nType == 16 || nType == 18 || nType == 228 || nType == 229 ? 0 : 1;
        EXPECT_EQ(nExpected, csForwardQueue.size()) << "type " << nType;
    }
}

TEST_F(ForwardQueue, ConfirmationsAndLossesAreSentWhileLoggedIn) {
    const Peer server = openLink();
    Orvex::ConnectConfirmNetMessage ccnm(7);
    EXPECT_LT(0, ForwardToCS(ccnm));
    Orvex::LostConnectionNetMessage lcnm(7);
    EXPECT_LT(0, ForwardToCS(lcnm));
    EXPECT_EQ(2U, server.images().size());
}

TEST_F(ForwardQueue, ALossWhoseSendFailsIsGone) {
    const Peer server = openLink();
    server.stopReading();
    Orvex::LostConnectionNetMessage lcnm(7);
    EXPECT_EQ(0, ForwardToCS(lcnm));
    EXPECT_TRUE(csForwardQueue.empty());
}

TEST_F(ForwardQueue, QueuesACopy) {
    const std::string sFirst = sNumbered(1);
    NetMessage nmMessage(sFirst.data(), static_cast<int>(sFirst.size()));
    EXPECT_EQ(0, ForwardToCS(nmMessage));
    nmMessage.ChangeSenderID(4711);
    EXPECT_EQ(sFrame(sFirst), csForwardQueue.front()->frame());
}

TEST_F(ForwardQueue, AnOversizeMessageNeitherBreaksTheLinkNorWaits) {
    const std::string sOversize = sImage(232, 7, 0, std::string(500, 'x'));
    EXPECT_EQ(0, nForward(sOversize));
    EXPECT_TRUE(csForwardQueue.empty());
    const Peer server = openLink();
    EXPECT_EQ(0, nForward(sOversize));
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ForwardQueue, ClearingDropsWhatWaitsUnsent) {
    queue(3);
    const Peer server = openLink();
    ClearCSQueue();
    EXPECT_TRUE(csForwardQueue.empty());
    EXPECT_THAT(server.images(), IsEmpty());
}

}  // namespace
