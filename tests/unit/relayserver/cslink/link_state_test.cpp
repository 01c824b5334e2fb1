#include "relayserver/cslink/link_state.h"

#include "base/clock.h"
#include "relayserver/settings/servers.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class LinkState : public EngineTest {};

TEST_F(LinkState, TheStagesHaveFixedNumbers) {
    EXPECT_EQ(0, CONNECTION_IDLE);
    EXPECT_EQ(1, WAITING_FOR_CONNECT);
    EXPECT_EQ(2, SSL_HANDSHAKE);
    EXPECT_EQ(3, WAITING_FOR_CHALLENGE);
    EXPECT_EQ(4, WAITING_FOR_LOGIN_RESPONSE);
    EXPECT_EQ(353, CONNECTION_FINISHED);
}

TEST_F(LinkState, StartsIdleAndAccepting) {
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ(0, connserv_sockfd);
    EXPECT_TRUE(bAccepting);
    EXPECT_FALSE(bLoginContinue);
    EXPECT_EQ(1U, connectRetry_secs);
}

TEST_F(LinkState, LosingAnEstablishedLinkClosesItAndKeepsTheClients) {
    const Peer client = addAuthClient(8);
    const Peer server = openLink();
    advanceClockForTest(5);
    LostConnectionToCS();
    EXPECT_THAT(loggedLines(), ElementsAre("Lost connection to CS!\n"));
    EXPECT_TRUE(server.bClosedByRelay());
    EXPECT_EQ(0, connserv_sockfd);
    EXPECT_EQ(-1, msConnServMsgSock.getMsgSockFileDesc());
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ(kNow + 5, ttConnectLost);
    EXPECT_TRUE(bIsAdmitted(8));
}

TEST_F(LinkState, TheTextTellsHowFarTheLinkHadCome) {
    const Peer early = openLink();
    nConnectionStage = WAITING_FOR_CONNECT;
    LostConnectionToCS();
    EXPECT_THAT(loggedLines(), ElementsAre("Connection attempt timed out to CS!\n"));
    const Peer late = openLink();
    nConnectionStage = SSL_HANDSHAKE;
    LostConnectionToCS();
    EXPECT_EQ("Lost connection to CS!\n", loggedLines().back());
}

TEST_F(LinkState, LosingNoLinkIsSilent) {
    LostConnectionToCS();
    EXPECT_THAT(loggedLines(), IsEmpty());
    EXPECT_EQ(kNow, ttConnectLost);
}

TEST_F(LinkState, BytesOfALostLinkAreForgotten) {
    const Peer server = openLink();
    server.sendBytes(sFrame(sImage(12, 0, 0, "")));
    EXPECT_LT(0, msConnServMsgSock.nReadNonBlockingSocket());
    LostConnectionToCS();
    EXPECT_FALSE(msConnServMsgSock.bHasMoreInput());
}

}  // namespace
