#include "relayserver/routes/route_store.h"

#include "genner/output/LostConnectionNetMessage.h"
#include "relayserver/clients/recently_lost.h"
#include "relayserver/orders/routing_update.h"
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

const RequestCode rcConnect(0);
const RequestCode rcDisconnect(1);

class RouteStore : public EngineTest {
  protected:
    static void update(RequestCode rc, unsigned nFrom, unsigned nTo, int nClass) {
        UpdateDB(RoutingUpdateNetMessage(rc, nFrom, nTo, nClass));
    }

    static void rememberLoss(int nClientID) {
        const Orvex::LostConnectionNetMessage lcnm(nClientID);
        AddToRecentlyLost(&lcnm);
    }
};

TEST_F(RouteStore, ConnectInsertsTheRoute) {
    const Peer peer = addAuthClient(9);
    update(rcConnect, 4294967295U, 9, 192);
    EXPECT_THAT(executedStatements(),
                ElementsAre("INSERT INTO iopatch (clientto, clientfrom, msgclass) VALUES "
                            "('9','4294967295','192')"));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(RouteStore, ConnectToAnAbsentClientIsReportedAndInsertedAllTheSame) {
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

TEST_F(RouteStore, RepeatsInARowForTheSameAbsentClientAreSilent) {
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

TEST_F(RouteStore, AConnectedDestinationDoesNotResetTheMemoryOfTheAbsentOne) {
    const Peer peer = addAuthClient(10);
    update(rcConnect, 7, 9, 192);
    update(rcConnect, 7, 10, 192);
    update(rcConnect, 7, 9, 192);
    EXPECT_EQ(1U, loggedLines().size());
}

TEST_F(RouteStore, DisconnectDeletesOneRoute) {
    update(rcDisconnect, 7, 9, 192);
    EXPECT_THAT(
        executedStatements(),
        ElementsAre("DELETE FROM iopatch WHERE clientto='9' AND clientfrom='7' AND msgclass='192'",
                    "SELECT * FROM iopatch WHERE clientto='9' OR clientfrom='9'"));
}

TEST_F(RouteStore, DisconnectToNobodyDeletesEveryRouteOfTheSource) {
    update(rcDisconnect, 7, 0, 192);
    EXPECT_THAT(executedStatements(),
                ElementsAre("DELETE FROM iopatch WHERE clientfrom='7' AND msgclass='192'",
                            "SELECT * FROM iopatch WHERE clientto='0' OR clientfrom='0'"));
}

TEST_F(RouteStore, DisconnectFromNobodyDeletesEveryRouteToTheDestination) {
    update(rcDisconnect, 0, 9, 192);
    EXPECT_THAT(executedStatements(),
                ElementsAre("DELETE FROM iopatch WHERE clientto='9' AND msgclass='192'",
                            "SELECT * FROM iopatch WHERE clientto='9' OR clientfrom='9'"));
}

TEST_F(RouteStore, ADestinationWithoutRowsIsConfirmedOnce) {
    rememberLoss(9);
    rememberLoss(10);
    update(rcDisconnect, 7, 9, 192);
    EXPECT_EQ(1U, vRecentlyLost.size());
    EXPECT_EQ(1U, nLogged("CS seems to have taken care of links for client 9\n"));
}

TEST_F(RouteStore, ADestinationWithRowsIsNotConfirmed) {
    rememberLoss(9);
    giveRows("SELECT * FROM iopatch WHERE clientto='9' OR clientfrom='9'", {"9"});
    update(rcDisconnect, 7, 9, 192);
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(RouteStore, AConnectConfirmsNobody) {
    rememberLoss(9);
    update(rcConnect, 7, 9, 192);
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(RouteStore, OtherRequestsExecuteNothingButForgetTheCachedRoute) {
    RoutingCache::Instance()->Add(RouteEntry(7, 192, {9}));
    update(RequestCode(2), 7, 9, 192);
    EXPECT_EQ(nullptr, RoutingCache::Instance()->find(7, 192));
    RoutingCache::Instance()->Add(RouteEntry(7, 192, {9}));
    update(RequestCode(-1), 7, 9, 192);
    EXPECT_EQ(nullptr, RoutingCache::Instance()->find(7, 192));
    EXPECT_THAT(executedStatements(), IsEmpty());
}

TEST_F(RouteStore, AnUpdateForgetsTheCachedRouteOfItsKeyOnly) {
    RoutingCache::Instance()->Add(RouteEntry(7, 192, {9}));
    RoutingCache::Instance()->Add(RouteEntry(7, 128, {9}));
    RoutingCache::Instance()->Add(RouteEntry(8, 192, {9}));
    update(rcConnect, 7, 9, 192);
    EXPECT_EQ(nullptr, RoutingCache::Instance()->find(7, 192));
    EXPECT_NE(nullptr, RoutingCache::Instance()->find(7, 128));
    EXPECT_NE(nullptr, RoutingCache::Instance()->find(8, 192));
}

TEST_F(RouteStore, DisconnectFromNobodyLeavesTheCachedRoutesOfOtherSources) {
    RoutingCache::Instance()->Add(RouteEntry(7, 192, {9}));
    RoutingCache::Instance()->Add(RouteEntry(0, 192, {9}));
    update(rcDisconnect, 0, 9, 192);
    EXPECT_NE(nullptr, RoutingCache::Instance()->find(7, 192));
    EXPECT_EQ(nullptr, RoutingCache::Instance()->find(0, 192));
}

TEST_F(RouteStore, AFailedStatementStopsNothing) {
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

TEST_F(RouteStore, DBCleanupEmptiesTableAndCache) {
    RoutingCache::Instance()->Add(RouteEntry(7, 192, {9}));
    DBCleanup();
    EXPECT_THAT(executedStatements(), ElementsAre("DELETE FROM iopatch"));
    EXPECT_EQ(0U, RoutingCache::Instance()->size());
}

TEST_F(RouteStore, AMissReadsTheTableOnceAndCachesTheRowsInTheirOrder) {
    giveRows("SELECT clientto FROM iopatch WHERE clientfrom='4294967295' AND msgclass='192'",
             {"12", "4294967294", "3"});
    EXPECT_THAT(findRoute(4294967295U, 192)->clientsTo(), ElementsAre(12, 4294967294U, 3));
    EXPECT_THAT(findRoute(4294967295U, 192)->clientsTo(), ElementsAre(12, 4294967294U, 3));
    EXPECT_EQ(1U, executedStatements().size());
    EXPECT_THAT(
        loggedLines(),
        ElementsAre("cache miss for source 4294967295 type 192, now sending to 3 clients\n"));
}

TEST_F(RouteStore, AFailedQueryIsCachedAsAnEmptyRoute) {
    letFail("SELECT clientto FROM iopatch WHERE clientfrom='7' AND msgclass='192'");
    EXPECT_THAT(findRoute(7, 192)->clientsTo(), IsEmpty());
    EXPECT_THAT(findRoute(7, 192)->clientsTo(), IsEmpty());
    EXPECT_EQ(1U, executedStatements().size());
    EXPECT_EQ(1U, nLogged("cache miss for source 7 type 192, now sending to 0 clients\n"));
}

TEST_F(RouteStore, TheCallerMayNameTheClassInTheLog) {
    (void)findRoute(7, 64, "audio");
    EXPECT_EQ(1U, nLogged("cache miss for source 7 type audio, now sending to 0 clients\n"));
}

}  // namespace
