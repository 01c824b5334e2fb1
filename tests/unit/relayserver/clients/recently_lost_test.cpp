#include "relayserver/clients/recently_lost.h"

#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using Orvex::LostConnectionNetMessage;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class RecentlyLost : public EngineTest {
  protected:
    static void lose(int nClientID) {
        const LostConnectionNetMessage lcnm(nClientID);
        AddToRecentlyLost(&lcnm);
    }

    static constexpr std::time_t kBoundary = 10800 * 157000LL;
};

TEST_F(RecentlyLost, KeepsACopyOfEachLossInOrder) {
    lose(7);
    lose(8);
    lose(7);
    ASSERT_EQ(3U, vRecentlyLost.size());
    EXPECT_EQ(7, vRecentlyLost[0]->GetClientID());
    EXPECT_EQ(8, vRecentlyLost[1]->GetClientID());
    EXPECT_EQ(7, vRecentlyLost[2]->GetClientID());
}

TEST_F(RecentlyLost, KeepsLossesWhetherTheLinkIsUpOrNot) {
    const Peer server = openLink();
    lose(7);
    EXPECT_EQ(1U, vRecentlyLost.size());
    EXPECT_THAT(server.images(), IsEmpty());
}

TEST_F(RecentlyLost, RemovalTakesEveryLossOfTheClient) {
    lose(7);
    lose(8);
    lose(7);
    EXPECT_TRUE(RemoveFromRecentlyLost(7));
    EXPECT_EQ(1U, vRecentlyLost.size());
    EXPECT_THAT(loggedLines(), ElementsAre("Removed recently lost message on client 7 from re-send "
                                           "list (2 instances)\n"));
}

TEST_F(RecentlyLost, RemovalOfAStrangerIsSilent) {
    lose(8);
    EXPECT_FALSE(RemoveFromRecentlyLost(7));
    EXPECT_EQ(1U, vRecentlyLost.size());
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(RecentlyLost, RemovalFindsIdsOfAllSizes) {
    lose(-2);
    EXPECT_TRUE(RemoveFromRecentlyLost(4294967294U));
}

TEST_F(RecentlyLost, TheOldestCanBeForgotten) {
    lose(7);
    lose(8);
    lose(7);
    forgetOldestLosses(2);
    ASSERT_EQ(1U, vRecentlyLost.size());
    EXPECT_EQ(7, vRecentlyLost[0]->GetClientID());
    EXPECT_FALSE(RemoveFromRecentlyLost(8));
    EXPECT_TRUE(RemoveFromRecentlyLost(7));
    EXPECT_THAT(vRecentlyLost, IsEmpty());
}

TEST_F(RecentlyLost, ConfirmationSaysWhoTookCare) {
    lose(7);
    ConfirmFromRecentlyLost(7);
    EXPECT_THAT(loggedLines(),
                ElementsAre("Removed recently lost message on client 7 from re-send list (1 "
                            "instances)\n",
                            "CS seems to have taken care of links for client 7\n"));
    ConfirmFromRecentlyLost(7);
    EXPECT_EQ(2U, loggedLines().size());
}

TEST_F(RecentlyLost, IsEmptiedOnTheBoundaryWhileLoggedIn) {
    lose(7);
    lose(8);
    clearRecentlyLostOnBoundary(kBoundary, true);
    EXPECT_THAT(vRecentlyLost, IsEmpty());
    EXPECT_THAT(loggedLines(),
                ElementsAre("periodic cleanup - removing 2 entries from recently lost array\n"));
    clearRecentlyLostOnBoundary(kBoundary, true);
    EXPECT_EQ(1U, loggedLines().size()) << "nothing to say about an empty list";
}

TEST_F(RecentlyLost, IsKeptBesideTheBoundary) {
    lose(7);
    clearRecentlyLostOnBoundary(kBoundary - 1, true);
    clearRecentlyLostOnBoundary(kBoundary + 1, true);
    EXPECT_EQ(1U, vRecentlyLost.size());
}

TEST_F(RecentlyLost, IsKeptWhileNotLoggedIn) {
    lose(7);
    clearRecentlyLostOnBoundary(kBoundary, false);
    EXPECT_EQ(1U, vRecentlyLost.size());
}

}  // namespace
