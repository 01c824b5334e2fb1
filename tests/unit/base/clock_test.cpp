#include "base/clock.h"

#include <gtest/gtest.h>

namespace {

class ClockTest : public testing::Test {
  protected:
    ~ClockTest() override { resetClockForTest(); }
};

TEST_F(ClockTest, TellsTheRealTimeUntilSet) {
    const std::time_t tBefore = std::time(nullptr);
    const std::time_t tTold = nowSecs();
    EXPECT_LE(tBefore, tTold);
    EXPECT_LE(tTold, std::time(nullptr));
}

TEST_F(ClockTest, StandsWhereATestPutsIt) {
    setClockForTest(1000);
    EXPECT_EQ(1000, nowSecs());
    advanceClockForTest(61);
    EXPECT_EQ(1061, nowSecs());
}

TEST_F(ClockTest, TellsTheRealTimeAgainAfterwards) {
    setClockForTest(1000);
    resetClockForTest();
    EXPECT_LT(1'000'000, nowSecs());
}

}  // namespace
