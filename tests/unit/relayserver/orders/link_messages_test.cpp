#include "relayserver/orders/link_messages.h"

#include <sys/socket.h>

#include "base/clock.h"
#include "genner/output/LogOutNetMessage.h"
#include "relayserver/cslink/forward_queue.h"
#include "tests/unit/relayserver/orders/link_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class LinkMessages : public LinkTest {
  protected:
    /// The server has sent all this at once; returns what handling it came to.
    int nHandle(const std::vector<std::string>& images) const {
        sendAll(images);
        EXPECT_LE(0, msConnServMsgSock.nReadNonBlockingSocket());
        return handleLinkMessages();
    }
};

TEST_F(LinkMessages, EveryMessageRenewsTheTime) {
    advanceClockForTest(9);
    receive({sOf(Orvex::HeartbeatNetMessage())});
    EXPECT_EQ(kNow + 9, ttLastConnServMsg);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(LinkMessages, ReadsTheLastMessagesOfALinkThatHasFailed) {
    for (unsigned nFrom = 1; nFrom <= 100; ++nFrom) {
        server.sendBytes(sFrame(sDisconnect(nFrom)));
    }
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_WR));
    readLastServerMessages();
    EXPECT_EQ(200U, executedStatements().size());
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage) << "the caller ends the link";
}

TEST_F(LinkMessages, ReadsNoLastMessagesOfALinkThatWasNeverUp) {
    server.sendBytes(sFrame(sDisconnect(7)));
    nConnectionStage = WAITING_FOR_CONNECT;
    readLastServerMessages();
    EXPECT_THAT(executedStatements(), IsEmpty());
}

TEST_F(LinkMessages, ALogOutAmongTheLastMessagesEndsThem) {
    server.sendBytes(sFrame(sOf(Orvex::LogOutNetMessage())) + sFrame(sDisconnect(7)));
    readLastServerMessages();
    EXPECT_THAT(executedStatements(), IsEmpty());
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
}

TEST_F(LinkMessages, ALogOutEndsABatch) {
    EXPECT_EQ(-1, nHandle({sDisconnect(7), sOf(Orvex::LogOutNetMessage()), sDisconnect(8)}));
    EXPECT_EQ(2U, executedStatements().size());
    EXPECT_THAT(loggedLines(),
                ElementsAre("logged out by connserver\n", "Lost connection to CS!\n"));
    EXPECT_EQ("first", serverQ.front());
}

TEST_F(LinkMessages, ABatchIsHandledToItsEndAlthoughItsFirstOrderFindsTheLinkBroken) {
    const Peer client = addAuthClient(7);
    server.stopReading();
    EXPECT_EQ(353, nHandle({sConnectToAbsent(8), sConnectToAbsent(9), sDisconnect(7)}));
    EXPECT_THAT(
        executedStatements(),
        ElementsAre("INSERT INTO iopatch (clientto, clientfrom, msgclass) VALUES ('8','7','128')",
                    "INSERT INTO iopatch (clientto, clientfrom, msgclass) VALUES ('9','7','128')",
                    "DELETE FROM iopatch WHERE clientfrom='7' AND msgclass='128'",
                    "SELECT * FROM iopatch WHERE clientto='0' OR clientfrom='0'"));
    EXPECT_EQ(1U, nLogged("socket broken sending message to connection server!\n"));
    EXPECT_TRUE(bLinkMarkedBroken());
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(LinkMessages, WithoutMessagesTheStageStays) {
    EXPECT_EQ(353, handleLinkMessages());
    nConnectionStage = WAITING_FOR_CHALLENGE;
    EXPECT_EQ(3, handleLinkMessages());
}

TEST_F(LinkMessages, WithoutALinkThereIsNoStage) {
    LostConnectionToCS();
    EXPECT_EQ(-1, handleLinkMessages());
}

}  // namespace
