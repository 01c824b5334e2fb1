#include "relayserver/cslink/client_report.h"

#include "genner/output/ConnectConfirmNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/routes/RoutingCache.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ClientReport : public EngineTest {
  protected:
    ClientReport() : server(openLink()) { nConnectionStage = WAITING_FOR_LOGIN_RESPONSE; }

    static void lose(int nClientID) {
        const Orvex::LostConnectionNetMessage lcnm(nClientID);
        AddToRecentlyLost(&lcnm);
    }

    static std::string sLoss(int nClientID) {
        Orvex::LostConnectionNetMessage lcnm(nClientID);
        return std::string(lcnm.frame().substr(1));
    }

    static std::string sConfirm(int nClientID) {
        Orvex::ConnectConfirmNetMessage ccnm(nClientID);
        return std::string(ccnm.frame().substr(1));
    }

    static std::string sListOf(int nLosses) {
        return "Sending list of clients that have disconnected from this relay while it was out of "
               "touch with connection server - list may be up to " +
               std::to_string(nLosses) + " clients long\n";
    }

    const Peer server;
};

TEST_F(ClientReport, ConfirmsEveryClientStraightOnTheLink) {
    const Peer peer7 = addAuthClient(7);
    const Peer peer8 = addAuthClient(8);
    const Peer loose = addLooseClient();
    EXPECT_EQ(0, IdentifyClients());
    EXPECT_THAT(server.images(), ElementsAre(sConfirm(7), sConfirm(8)));
    EXPECT_THAT(loggedLines(),
                ElementsAre("identifying all 2 currently connected clients to connserver\n"));
    EXPECT_TRUE(csForwardQueue.empty());
}

TEST_F(ClientReport, WithoutClientsThereIsNothingToConfirm) {
    EXPECT_EQ(0, IdentifyClients());
    EXPECT_THAT(server.images(), IsEmpty());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ClientReport, ConfirmingEndsWithTheFirstFailedSend) {
    const Peer peer7 = addAuthClient(7);
    const Peer peer8 = addAuthClient(8);
    server.stopReading();
    EXPECT_EQ(-1, IdentifyClients());
    EXPECT_THAT(loggedLines(),
                ElementsAre("identifying all 2 currently connected clients to connserver\n",
                            "didn't get through client list. ending identification loop\n"));
}

TEST_F(ClientReport, ReportsTheLossesOldestFirstAndForgetsThem) {
    lose(7);
    lose(8);
    lose(7);
    EXPECT_EQ(0, IdentifyLosses());
    EXPECT_THAT(server.images(), ElementsAre(sLoss(7), sLoss(8), sLoss(7)));
    EXPECT_THAT(vRecentlyLost, IsEmpty());
    EXPECT_THAT(loggedLines(), ElementsAre(sListOf(3)));
}

TEST_F(ClientReport, AClientThatCameBackIsNotReportedLost) {
    const Peer peer8 = addAuthClient(8);
    lose(7);
    lose(8);
    EXPECT_EQ(0, IdentifyLosses());
    EXPECT_THAT(server.images(), ElementsAre(sLoss(7)));
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(ClientReport, SaysSoEvenWithoutLosses) {
    EXPECT_EQ(0, IdentifyLosses());
    EXPECT_THAT(loggedLines(), ElementsAre(sListOf(0)));
}

TEST_F(ClientReport, LossesThatTheLinkDidNotTakeAreKept) {
    const Peer peer8 = addAuthClient(8);
    lose(8);
    lose(7);
    lose(9);
    server.stopReading();
    EXPECT_EQ(-1, IdentifyLosses());
    EXPECT_THAT(loggedLines(),
                ElementsAre(sListOf(3),
                            "didn't get through client list. ending loss identification loop after "
                            "reporting/checking 1 entries\n"));
    ASSERT_EQ(2U, vRecentlyLost.size());
    EXPECT_EQ(7, vRecentlyLost.front()->GetClientID());
}

TEST_F(ClientReport, MopupDropsEveryClientAndEveryRoute) {
    const Peer peer7 = addAuthClient(7);
    const Peer peer8 = addAuthClient(8);
    const Peer loose = addLooseClient();
    route(7, kChatPipe, {8});
    MopupCS(LeaveReason::kNewSession);
    EXPECT_TRUE(peer7.bClosedByRelay());
    EXPECT_TRUE(peer8.bClosedByRelay());
    EXPECT_TRUE(loose.bClosedByRelay());
    EXPECT_EQ(0, ctAuthClientTable.GetSize());
    EXPECT_EQ(0, ctLooseClientTable.GetSize());
    EXPECT_EQ(0U, Tessel_Routing::RoutingCache::Instance()->size());
    EXPECT_THAT(executedStatements(), ElementsAre("DELETE FROM iopatch"));
    const std::string sRemoved = "Removing client table entry for address 0.0.0.0(0).\n";
    EXPECT_THAT(loggedLines(),
                ElementsAre("Mopping up CS! Client connections being cancelled\n", sRemoved,
                            sRemoved, sRemoved, "Cancelled 3 client connections\n"));
}

TEST_F(ClientReport, MopupWithoutClientsEmptiesTheRoutesAnyway) {
    MopupCS(LeaveReason::kNewSession);
    EXPECT_THAT(executedStatements(), ElementsAre("DELETE FROM iopatch"));
    EXPECT_EQ("Cancelled 0 client connections\n", loggedLines().back());
}

}  // namespace
