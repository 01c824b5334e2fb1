#include "relayserver/orders/cs_messages.h"

#include <sys/socket.h>

#include "base/clock.h"
#include "genner/output/ChallengeNetMessage.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "genner/output/LogOutNetMessage.h"
#include "genner/output/PremiumFeatureResponseNetMessage.h"
#include "genner/output/RoutingUpdateNetMessage.h"
#include "relayserver/clients/video_gate.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/orders/link_events.h"
#include "relayserver/orders/link_messages.h"
#include "relayserver/routes/RoutingCache.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/session_keys.h"
#include "relayserver/settings/settings.h"
#include "relayserver/sockets/epoll_set.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/cslink/test_keys.h"
#include "tests/unit/relayserver/orders/link_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class CsMessages : public LinkTest {
  protected:
    static std::string sPermission(long lCode) {
        return sOf(Orvex::PremiumFeatureResponseNetMessage(7, 8, 65, Orvex::ReturnCode(lCode)));
    }
};

TEST_F(CsMessages, ARoutingUpdateGoesToTheRouteStore) {
    receive({sDisconnect(7)});
    ASSERT_EQ(2U, executedStatements().size());
    EXPECT_EQ("DELETE FROM iopatch WHERE clientfrom='7' AND msgclass='128'",
              executedStatements()[0]);
}

TEST_F(CsMessages, AVideoGrantIsStored) {
    receive({sPermission(0)});
    EXPECT_THAT(loggedLines(), ElementsAre("Video link permissions granted for 7 to 8\n"));
    EXPECT_EQ(2, videoPermissions.getCode(7, 8));
}

TEST_F(CsMessages, AVideoDenialIsStored) {
    videoPermissions.Grant(7, 8);
    receive({sPermission(2)});
    EXPECT_THAT(loggedLines(), ElementsAre("Video link permissions denied for 7 to 8\n"));
    EXPECT_EQ(1, videoPermissions.getCode(7, 8));
}

TEST_F(CsMessages, ALogOutTakesTheLinkDownAndKeepsTheClients) {
    const Peer client = addAuthClient(8);
    receive({sOf(Orvex::LogOutNetMessage())});
    EXPECT_THAT(loggedLines(),
                ElementsAre("logged out by connserver\n", "Lost connection to CS!\n"));
    EXPECT_EQ(CONNECTION_IDLE, nConnectionStage);
    EXPECT_EQ("first", serverQ.front());
    EXPECT_TRUE(bIsAdmitted(8));
}

TEST_F(CsMessages, AMalformedSenderIsLoggedAndTheNextMessageHandled) {
    std::string sNegative = sDisconnect(7);
    sNegative[4] = '\xFF';
    receive({sNegative, sDisconnect(7).substr(0, 7), sDisconnect(9)});
    EXPECT_EQ(1U, nLogged("Connserver message with invalid sender id string and len " +
                          std::to_string(sNegative.size()) + " received, ignoring message\n"));
    EXPECT_EQ(1U, nLogged("Connserver message with invalid sender id string and len 7 received, "
                          "ignoring message\n"));
    EXPECT_EQ(2U, executedStatements().size());
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
}

TEST_F(CsMessages, OtherMessagesGoToTheClientThatTheyName) {
    const Peer client = addAuthClient(8);
    route(7, kChatPipe, {9});
    const std::string sChat = sImage(3, 7, 8, "ab");
    const std::string sStatus = sImage(232, 7, 8, "ab");
    receive({sChat, sStatus, sImage(3, 7, 4711, "ab")});
    EXPECT_THAT(client.images(), ElementsAre(sChat, sStatus));
    EXPECT_THAT(server.images(), IsEmpty());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(CsMessages, AClientThatTakesNothingIsLostWithoutTheLink) {
    const Peer client = addAuthClient(8);
    client.stopReading();
    receive({sImage(3, 7, 8, "ab")});
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_EQ(CONNECTION_FINISHED, nConnectionStage);
    EXPECT_EQ(1U, server.images().size());
}

TEST_F(CsMessages, AChallengeOfTheEstablishedLinkIsAnswered) {
    rsaPublicKey = testRsaKey();
    bLoginContinue = true;
    receive({sOf(Orvex::ChallengeNetMessage(5))});
    EXPECT_EQ(WAITING_FOR_LOGIN_RESPONSE, nConnectionStage);
    EXPECT_EQ(5, openLogin(server.images()[0]).GetLoginNumber());
    rsaPublicKey = nullptr;
}

}  // namespace
