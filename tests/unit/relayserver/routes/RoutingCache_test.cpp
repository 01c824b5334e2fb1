#include "relayserver/routes/RoutingCache.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using Tessel_Routing::RouteEntry;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class RoutingCache : public testing::Test {
  protected:
    Tessel_Routing::RoutingCache cache;
    std::vector<unsigned> destinations{4711};
};

TEST_F(RoutingCache, AMissLeavesTheListAsItWas) {
    EXPECT_FALSE(cache.CacheHit(1, 128, destinations));
    EXPECT_THAT(destinations, ElementsAre(4711));
    EXPECT_EQ(nullptr, cache.find(1, 128));
}

TEST_F(RoutingCache, AHitReplacesTheListInTheOrderOfTheDatabase) {
    cache.Add(RouteEntry(1, 128, {9, 3, 7}));
    EXPECT_TRUE(cache.CacheHit(1, 128, destinations));
    EXPECT_THAT(destinations, ElementsAre(9, 3, 7));
}

TEST_F(RoutingCache, ARouteWithoutDestinationsIsAHit) {
    cache.Add(RouteEntry(1, 128, {}));
    EXPECT_TRUE(cache.CacheHit(1, 128, destinations));
    EXPECT_THAT(destinations, IsEmpty());
}

TEST_F(RoutingCache, TellsSourcesAndTypesApart) {
    cache.Add(RouteEntry(1, 128, {2}));
    cache.Add(RouteEntry(1, 192, {3}));
    cache.Add(RouteEntry(2, 128, {4}));
    cache.Add(RouteEntry(0xFFFFFFFFU, -1, {5}));
    EXPECT_EQ(4U, cache.size());
    EXPECT_THAT(cache.find(1, 128)->clientsTo(), ElementsAre(2));
    EXPECT_THAT(cache.find(1, 192)->clientsTo(), ElementsAre(3));
    EXPECT_THAT(cache.find(2, 128)->clientsTo(), ElementsAre(4));
    EXPECT_THAT(cache.find(0xFFFFFFFFU, -1)->clientsTo(), ElementsAre(5));
    EXPECT_EQ(nullptr, cache.find(2, 192));
}

TEST_F(RoutingCache, AddReplacesTheEntryOfTheSameKey) {
    cache.Add(RouteEntry(1, 128, {2, 3}));
    cache.Add(RouteEntry(1, 128, {4}));
    EXPECT_EQ(1U, cache.size());
    EXPECT_THAT(cache.find(1, 128)->GetClientsTo(), ElementsAre(4));
}

TEST_F(RoutingCache, RemoveLooksAtTheKeyOnly) {
    cache.Add(RouteEntry(1, 128, {2, 3}));
    cache.Add(RouteEntry(1, 192, {2, 3}));
    cache.Remove(RouteEntry(1, 128, {99}));
    EXPECT_EQ(nullptr, cache.find(1, 128));
    EXPECT_NE(nullptr, cache.find(1, 192));
}

TEST_F(RoutingCache, RemovingWhatIsNotThereDoesNothing) {
    cache.Add(RouteEntry(1, 128, {2}));
    cache.Remove(RouteEntry(2, 128, {2}));
    cache.Remove(RouteEntry(1, 129, {2}));
    EXPECT_EQ(1U, cache.size());
}

TEST_F(RoutingCache, ClearForgetsEverything) {
    cache.Add(RouteEntry(1, 128, {2}));
    cache.Add(RouteEntry(2, 128, {2}));
    cache.Clear();
    EXPECT_EQ(0U, cache.size());
    EXPECT_FALSE(cache.CacheHit(1, 128, destinations));
}

TEST_F(RoutingCache, AnEntryInHandOutlivesItsRemoval) {
    cache.Add(RouteEntry(1, 128, {2, 3}));
    const auto pHeld = cache.find(1, 128);
    cache.Clear();
    EXPECT_THAT(pHeld->clientsTo(), ElementsAre(2, 3));
}

TEST_F(RoutingCache, InventedSourcesDoNotFillTheMemory) {
    for (unsigned nSource = 0; nSource < cache.kMaxEntries; ++nSource) {
        cache.Add(RouteEntry(nSource, 128, {}));
    }
    EXPECT_EQ(cache.kMaxEntries, cache.size());
    cache.Add(RouteEntry(7, 192, {8}));
    EXPECT_EQ(1U, cache.size());
    EXPECT_THAT(cache.find(7, 192)->clientsTo(), ElementsAre(8));
}

TEST(RoutingCacheInstance, IsOneForTheProcess) {
    EXPECT_EQ(Tessel_Routing::RoutingCache::Instance(), Tessel_Routing::RoutingCache::Instance());
}

TEST(RouteEntry, FindsTheRecordsOfItsDestinations) {
    Orvex::RelayClientTable table;
    Orvex::RelayClient client;
    client.SetClientID(3);
    Orvex::RelayClient& rStored = table.Add(client);
    const RouteEntry re(1, 128, {2, 3});
    EXPECT_EQ(nullptr, re.find(0, table));
    EXPECT_EQ(&rStored, re.find(1, table));
    rStored.SetClientID(2);
    EXPECT_EQ(&rStored, re.find(0, table));
    EXPECT_EQ(nullptr, re.find(1, table));
}

TEST(RouteEntry, TellsWhatItWasMadeOf) {
    const RouteEntry empty;
    EXPECT_EQ(0, empty.GetClientFrom());
    EXPECT_EQ(0, empty.GetMessageType());
    EXPECT_THAT(empty.GetClientsTo(), IsEmpty());
    const RouteEntry route(0xFFFFFFFEU, 64, {1, 2});
    EXPECT_EQ(-2, route.GetClientFrom());
    EXPECT_EQ(64, route.GetMessageType());
    EXPECT_THAT(route.GetClientsTo(), ElementsAre(1, 2));
}

}  // namespace
