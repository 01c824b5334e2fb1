#include "relayserver/orders/routing_update.h"

#include "genner/output/LostConnectionNetMessage.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/routes/route_store.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using Orvex::RequestCode;
using Orvex::RoutingUpdateNetMessage;
using Tessel_Routing::RouteEntry;
using Tessel_Routing::RoutingCache;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class RoutingUpdate : public EngineTest {
  protected:
    static void update(RequestCode rc, unsigned nFrom, unsigned nTo, int nClass) {
        UpdateDB(RoutingUpdateNetMessage(rc, nFrom, nTo, nClass));
    }

    static void rememberLoss(int nClientID) {
        const Orvex::LostConnectionNetMessage lcnm(nClientID);
        AddToRecentlyLost(&lcnm);
    }
};

TEST_F(RoutingUpdate, ConnectInsertsTheRoute) {
    const Peer peer = addAuthClient(9);
    update(rcConnect, 4294967295U, 9, 192);
    EXPECT_THAT(executedStatements(),
                ElementsAre("INSERT INTO iopatch (clientto, clientfrom, msgclass) VALUES "
                            "('9','4294967295','192')"));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(RoutingUpdate, ConnectToAnAbsentClientIsReportedAndInsertedAnyway) {
    const Peer server = openLink();
    update(rcConnect, 7, 9, 192);
    EXPECT_EQ(1U, executedStatements().size());
    EXPECT_THAT(loggedLines(),
                ElementsAre("Got a routing insert request for client ID 9, but it's not currently "
                            "one connected to this relay. Re-confirming that to conn server\n"));
    const auto images = server.images();
    ASSERT_EQ(1U, images.size());
    const Orvex::LostConnectionNetMessage lcnm(images[0].data(),
                                               static_cast<int>(images[0].size()));
    EXPECT_EQ(18, images[0][0]);
    EXPECT_EQ(9, lcnm.GetClientID());
}

TEST_F(RoutingUpdate, RepeatsInARowForTheSameAbsentClientAreSilent) {
    const Peer server = openLink();
    update(rcConnect, 7, 9, 192);
    update(rcConnect, 8, 9, 128);
    update(rcConnect, 8, 9, 192);
    EXPECT_EQ(1U, loggedLines().size());
    EXPECT_EQ(1U, server.images().size());
    update(rcConnect, 7, 10, 192);
    EXPECT_EQ(2U, loggedLines().size());
    EXPECT_EQ(1U, server.images().size());
    update(rcConnect, 7, 9, 192);
    EXPECT_EQ(3U, loggedLines().size());
    EXPECT_EQ(5U, executedStatements().size());
}

TEST_F(RoutingUpdate, AConnectedDestinationDoesNotResetTheMemoryOfTheAbsentOne) {
    const Peer peer = addAuthClient(10);
    update(rcConnect, 7, 9, 192);
    update(rcConnect, 7, 10, 192);
    update(rcConnect, 7, 9, 192);
    EXPECT_EQ(1U, loggedLines().size());
}

TEST_F(RoutingUpdate, DisconnectDeletesOneRoute) {
    update(rcDisconnect, 7, 9, 192);
    EXPECT_THAT(
        executedStatements(),
        ElementsAre("DELETE FROM iopatch WHERE clientto='9' AND clientfrom='7' AND msgclass='192'",
                    "SELECT * FROM iopatch WHERE clientto='9' OR clientfrom='9'"));
}

TEST_F(RoutingUpdate, DisconnectWithoutADestinationDeletesEveryRouteOfTheSource) {
    update(rcDisconnect, 7, 0, 192);
    EXPECT_THAT(executedStatements(),
                ElementsAre("DELETE FROM iopatch WHERE clientfrom='7' AND msgclass='192'",
                            "SELECT * FROM iopatch WHERE clientto='0' OR clientfrom='0'"));
}

TEST_F(RoutingUpdate, DisconnectWithoutASourceDeletesEveryRouteToTheDestination) {
    update(rcDisconnect, 0, 9, 192);
    EXPECT_THAT(executedStatements(),
                ElementsAre("DELETE FROM iopatch WHERE clientto='9' AND msgclass='192'",
                            "SELECT * FROM iopatch WHERE clientto='9' OR clientfrom='9'"));
}

TEST_F(RoutingUpdate, ADestinationWithoutRowsIsConfirmedOnce) {
    rememberLoss(9);
    rememberLoss(10);
    update(rcDisconnect, 7, 9, 192);
    EXPECT_EQ(1U, vRecentlyLost.size());
    EXPECT_EQ(1U, nLogged("CS seems to have taken care of links for client 9\n"));
}

TEST_F(RoutingUpdate, ADestinationWithRowsIsNotConfirmed) {
    rememberLoss(9);
    giveRows("SELECT * FROM iopatch WHERE clientto='9' OR clientfrom='9'", {"9"});
    update(rcDisconnect, 7, 9, 192);
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(RoutingUpdate, AConnectConfirmsNoLoss) {
    rememberLoss(9);
    update(rcConnect, 7, 9, 192);
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(RoutingUpdate, OtherRequestsExecuteNothingButForgetTheCachedRoute) {
    RoutingCache::Instance()->Add(RouteEntry(7, 192, {9}));
    update(rcUdpReg, 7, 9, 192);
    EXPECT_EQ(nullptr, RoutingCache::Instance()->find(7, 192));
    RoutingCache::Instance()->Add(RouteEntry(7, 192, {9}));
    update(RequestCode(-1), 7, 9, 192);
    EXPECT_EQ(nullptr, RoutingCache::Instance()->find(7, 192));
    EXPECT_THAT(executedStatements(), IsEmpty());
}

TEST_F(RoutingUpdate, AnUpdateForgetsTheCachedRouteOfItsKeyOnly) {
    RoutingCache::Instance()->Add(RouteEntry(7, 192, {9}));
    RoutingCache::Instance()->Add(RouteEntry(7, 128, {9}));
    RoutingCache::Instance()->Add(RouteEntry(8, 192, {9}));
    update(rcConnect, 7, 9, 192);
    EXPECT_EQ(nullptr, RoutingCache::Instance()->find(7, 192));
    EXPECT_NE(nullptr, RoutingCache::Instance()->find(7, 128));
    EXPECT_NE(nullptr, RoutingCache::Instance()->find(8, 192));
}

TEST_F(RoutingUpdate, DisconnectWithoutASourceLeavesTheCachedRoutesOfOtherSources) {
    RoutingCache::Instance()->Add(RouteEntry(7, 192, {9}));
    RoutingCache::Instance()->Add(RouteEntry(0, 192, {9}));
    update(rcDisconnect, 0, 9, 192);
    EXPECT_NE(nullptr, RoutingCache::Instance()->find(7, 192));
    EXPECT_EQ(nullptr, RoutingCache::Instance()->find(0, 192));
}

TEST_F(RoutingUpdate, AFailedStatementStopsNothing) {
    const Peer peer = addAuthClient(9);
    letFail("INSERT INTO iopatch (clientto, clientfrom, msgclass) VALUES ('9','7','192')");
    letFail("SELECT * FROM iopatch WHERE clientto='9' OR clientfrom='9'");
    RoutingCache::Instance()->Add(RouteEntry(7, 192, {}));
    update(rcConnect, 7, 9, 192);
    EXPECT_EQ(nullptr, RoutingCache::Instance()->find(7, 192));
    EXPECT_EQ(0, nDatabaseResets());
    rememberLoss(9);
    update(rcDisconnect, 7, 9, 192);
    EXPECT_THAT(vRecentlyLost, IsEmpty()) << "a failed query counts as one without rows";
}

}  // namespace
