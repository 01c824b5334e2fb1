#include "relayserver/clients/PermissionsCache.h"

#include <gtest/gtest.h>

#include "base/clock.h"

namespace {

class PermissionsCache : public testing::Test {
  protected:
    PermissionsCache() : clockStopped(true) {}
    ~PermissionsCache() override { resetClockForTest(); }

    /// Stops the clock before the cache under test looks at it.
    struct ClockStopped {
        explicit ClockStopped(bool /*bStopped*/) { setClockForTest(1700000000); }
    } clockStopped;
    Tessel_Routing::PermissionsCache permissions;
};

TEST_F(PermissionsCache, AnUnknownPairIsToBeAskedForAndStaysSo) {
    EXPECT_EQ(8, permissions.getCode(1, 2));
    advanceClockForTest(3600);
    EXPECT_EQ(8, permissions.getCode(1, 2));
}

TEST_F(PermissionsCache, AnUnknownPairIsRememberedAsAnEntry) {
    (void)permissions.getCode(1, 2);
    EXPECT_EQ(1U, permissions.ClearID(2));
}

TEST_F(PermissionsCache, AGrantHoldsForAnHourAndIsThenStale) {
    permissions.Grant(1, 2);
    EXPECT_EQ(2, permissions.getCode(1, 2));
    advanceClockForTest(3600);
    EXPECT_EQ(2, permissions.getCode(1, 2));
    advanceClockForTest(1);
    EXPECT_EQ(10, permissions.getCode(1, 2));
    EXPECT_EQ(10, permissions.getCode(1, 2));
}

TEST_F(PermissionsCache, ADenialHoldsForAnHourAndIsThenStale) {
    permissions.Deny(1, 2);
    EXPECT_EQ(1, permissions.getCode(1, 2));
    advanceClockForTest(3601);
    EXPECT_EQ(9, permissions.getCode(1, 2));
}

TEST_F(PermissionsCache, AGrantMakesAStaleCodeFreshAgain) {
    permissions.Deny(1, 2);
    advanceClockForTest(3601);
    EXPECT_EQ(9, permissions.getCode(1, 2));
    permissions.Grant(1, 2);
    EXPECT_EQ(2, permissions.getCode(1, 2));
    advanceClockForTest(3600);
    EXPECT_EQ(2, permissions.getCode(1, 2));
}

TEST_F(PermissionsCache, TheDirectionMatters) {
    permissions.Grant(1, 2);
    EXPECT_EQ(8, permissions.getCode(2, 1));
}

TEST_F(PermissionsCache, APendingRequestIsRepeatedAfterTenMinutes) {
    EXPECT_EQ(8, permissions.getCode(1, 2));
    permissions.MarkPending(1, 2);
    EXPECT_EQ(4, permissions.getCode(1, 2));
    advanceClockForTest(600);
    EXPECT_EQ(4, permissions.getCode(1, 2));
    advanceClockForTest(1);
    EXPECT_EQ(12, permissions.getCode(1, 2));
}

TEST_F(PermissionsCache, MarkPendingKeepsADecisionAndTakesTheAskingAway) {
    permissions.Grant(1, 2);
    advanceClockForTest(3601);
    EXPECT_EQ(10, permissions.getCode(1, 2));
    permissions.MarkPending(1, 2);
    EXPECT_EQ(6, permissions.getCode(1, 2));
    advanceClockForTest(601);
    EXPECT_EQ(14, permissions.getCode(1, 2));
}

TEST_F(PermissionsCache, AnEntryWithoutARequestIsNotAskedForAfterTenMinutes) {
    permissions.Grant(1, 2);
    advanceClockForTest(601);
    EXPECT_EQ(2, permissions.getCode(1, 2));
}

TEST_F(PermissionsCache, CleanupDropsEntriesOlderThanSixHoursOnly) {
    permissions.Grant(1, 2);
    advanceClockForTest(1);
    permissions.Grant(1, 3);
    advanceClockForTest(21600);
    permissions.Cleanup();
    EXPECT_EQ(10, permissions.getCode(1, 3));  // exactly 21600 s old: kept, stale
    EXPECT_EQ(8, permissions.getCode(1, 2));   // 21601 s old: forgotten
}

TEST_F(PermissionsCache, CleanupForgetsSourcesThatHaveNoEntriesLeft) {
    permissions.Grant(1, 2);
    advanceClockForTest(21601);
    permissions.Cleanup();
    EXPECT_EQ(0U, permissions.ClearID(1));
}

TEST_F(PermissionsCache, GetCodeCleansUpWhenTheLastCleanupIsMoreThanSixHoursAgo) {
    permissions.Grant(1, 2);
    advanceClockForTest(21600);
    (void)permissions.getCode(8, 9);
    EXPECT_EQ(1U, permissions.ClearID(1)) << "exactly six hours: no cleanup yet";
    permissions.Grant(1, 2);
    advanceClockForTest(1);
    (void)permissions.getCode(8, 9);  // cleans up: the entry is young
    advanceClockForTest(21600);
    (void)permissions.getCode(8, 9);
    EXPECT_EQ(1U, permissions.ClearID(1)) << "the last cleanup is exactly six hours ago";
}

TEST_F(PermissionsCache, AnEntryOlderThanSixHoursIsUnknownAgain) {
    permissions.Grant(1, 2);
    advanceClockForTest(21601);
    EXPECT_EQ(8, permissions.getCode(1, 2));
}

TEST_F(PermissionsCache, ClearIDForgetsAnIdAsSourceAndAsDestination) {
    permissions.Grant(5, 6);
    permissions.Grant(5, 7);
    permissions.Grant(1, 5);
    permissions.Grant(2, 5);
    permissions.Grant(2, 3);
    EXPECT_EQ(3U, permissions.ClearID(5));
    EXPECT_EQ(2, permissions.getCode(2, 3));
    EXPECT_EQ(8, permissions.getCode(1, 5));
    EXPECT_EQ(8, permissions.getCode(5, 6));
}

TEST_F(PermissionsCache, ClearIDForgetsSourcesLeftWithoutDestinations) {
    permissions.Grant(1, 5);
    EXPECT_EQ(1U, permissions.ClearID(5));
    EXPECT_EQ(0U, permissions.ClearID(1));
}

TEST_F(PermissionsCache, ClearIDOfAStrangerForgetsNothing) {
    permissions.Grant(1, 2);
    EXPECT_EQ(0U, permissions.ClearID(3));
    EXPECT_EQ(2, permissions.getCode(1, 2));
}

TEST_F(PermissionsCache, ClearForgetsEverythingAndCountsAsCleanup) {
    permissions.Grant(1, 2);
    advanceClockForTest(21601);
    permissions.Clear();
    EXPECT_EQ(0U, permissions.ClearID(1));
    permissions.Grant(1, 2);
    advanceClockForTest(21600);
    (void)permissions.getCode(8, 9);
    EXPECT_EQ(1U, permissions.ClearID(1)) << "no cleanup within six hours of the clearing";
}

}  // namespace
