#include "relayserver/routes/route_store.h"

#include "genner/output/LostConnectionNetMessage.h"
#include "relayserver/clients/recently_lost.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using Tessel_Routing::RouteEntry;
using Tessel_Routing::RoutingCache;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using RouteStore = EngineTest;

TEST_F(RouteStore, InsertingARouteLeavesTheCacheAlone) {
    route(7, 192, {8});
    insertRoute(7, 9, 192);
    EXPECT_THAT(executedStatements(),
                ElementsAre("INSERT INTO iopatch (clientto, clientfrom, msgclass) VALUES "
                            "('9','7','192')"));
    EXPECT_TRUE(bIsRouteCached(7, 192));
}

TEST_F(RouteStore, DeletingARouteLooksWhetherItsDestinationHasOthers) {
    route(7, 192, {9});
    deleteRoute(7, 9, 192);
    EXPECT_EQ(dissolvingStatements(7, 9, 192), executedStatements());
    EXPECT_TRUE(bIsRouteCached(7, 192));
}

TEST_F(RouteStore, DeletingTheLastRouteOfAClientConfirmsItsLosses) {
    const Orvex::LostConnectionNetMessage lcnm(9);
    AddToRecentlyLost(&lcnm);
    giveRows("SELECT * FROM iopatch WHERE clientto='9' OR clientfrom='9'", {"9"});
    deleteRoute(7, 9, 192);
    EXPECT_EQ(1U, vRecentlyLost.size());
    giveRows("SELECT * FROM iopatch WHERE clientto='9' OR clientfrom='9'", {});
    deleteRoute(7, 9, 192);
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(RouteStore, ForgettingARouteLeavesTheOthersAndTheTableAlone) {
    route(7, 192, {9});
    route(7, 128, {9});
    forgetRoute(7, 192);
    EXPECT_FALSE(bIsRouteCached(7, 192));
    EXPECT_TRUE(bIsRouteCached(7, 128));
    EXPECT_THAT(executedStatements(), IsEmpty());
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
