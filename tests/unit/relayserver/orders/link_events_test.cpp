#include "relayserver/orders/link_events.h"

#include <sys/socket.h>

#include "base/clock.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "genner/output/LogOutNetMessage.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/settings/settings.h"
#include "tests/unit/relayserver/orders/link_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using LinkEvents = LinkTest;

TEST_F(LinkEvents, WhatWaitedIsSentAfterTheMessagesOfARead) {
    const std::string sWaiting = sImage(232, 7, 0, "ab");
    csForwardQueue.push(
        std::make_shared<Orvex::NetMessage>(sWaiting.data(), static_cast<int>(sWaiting.size())));
    receive({sOf(Orvex::HeartbeatNetMessage())});
    EXPECT_THAT(server.images(), ElementsAre(sWaiting));
    EXPECT_THAT(loggedLines(),
                ElementsAre("TRACE: have collected 1 messages to de-queue to server\n",
                            "TRACE: cleared CS queue to 0 messages\n"));
}

TEST_F(LinkEvents, WhatWaitsIsKeptWhenTheReadEndsTheLink) {
    csForwardQueue.push(std::make_shared<Orvex::NetMessage>(232));
    receive({sOf(Orvex::LogOutNetMessage())});
    EXPECT_EQ(1U, csForwardQueue.size());
    EXPECT_EQ(0U, nLoggedContaining("TRACE"));
}

TEST_F(LinkEvents, ABreakIsReportedWithTheLastMessageSent) {
    const Peer client = addAuthClient(8);
    Orvex::HeartbeatNetMessage hbnm;
    EXPECT_LT(0, ForwardToCS(hbnm));
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_WR));
    receive({});
    EXPECT_THAT(loggedLines(),
                ElementsAre("WARNING: broken socket to connserver : read returned EOF\n",
                            "Last message forwarded to CS before break: \n",
                            "^L[00][00][00][00][00][00][00][00]\n", "Lost connection to CS!\n"));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ("first", serverQ.front()) << "an established link does not cost the server its turn";
    EXPECT_TRUE(bIsAdmitted(8));
}

TEST_F(LinkEvents, WhatArrivedBeforeABreakStillCounts) {
    server.sendBytes(sFrame(sDisconnect(7)));
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_WR));
    receive({});
    EXPECT_EQ(2U, executedStatements().size());
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
}

TEST_F(LinkEvents, ALogOutBeforeABreakLosesTheLinkOnce) {
    server.sendBytes(sFrame(sOf(Orvex::LogOutNetMessage())));
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_WR));
    receive({});
    EXPECT_EQ(1U, nLogged("Lost connection to CS!\n"));
}

TEST_F(LinkEvents, AFailureBeforeTheLoginIsLoggedAndTheRetryThrottled) {
    nConnectionStage = WAITING_FOR_CHALLENGE;
    receive({sDisconnect(7)});
    ASSERT_LE(2U, loggedLines().size());
    EXPECT_EQ("failure in connecttoserver, disconnecting\n", *(loggedLines().end() - 2));
    EXPECT_EQ("Throttling reconnect attempt, must wait at least 1 seconds\n", loggedLines().back());
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
}

TEST_F(LinkEvents, AFailureBeforeTheLoginIsRetriedAtOnceWhenTheLastAttemptIsOldEnough) {
    nConnectionStage = WAITING_FOR_CHALLENGE;
    serverQ = {};
    advanceClockForTest(1);
    receive({sDisconnect(7)});
    EXPECT_EQ(1U, nLogged("failure in connecttoserver, disconnecting\n"));
    EXPECT_EQ(1U, nLoggedContaining("initialized connection server reconnect timer at: "));
}

TEST_F(LinkEvents, AFailureWhileConnectingHasItsOwnText) {
    bCS_ssl = true;
    server.stopReading();
    ASSERT_EQ(0, shutdown(server.fd(), SHUT_RDWR));
    nConnectionStage = WAITING_FOR_CONNECT;
    handleEvent(EPOLLOUT);
    EXPECT_EQ(1U, nLogged("SSL handshake with CS failed, library trace above\n"));
    EXPECT_EQ(1U, nLogged("failure in connecttoserver connect pending, disconnecting\n"));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ("second", serverQ.front());
}

}  // namespace
