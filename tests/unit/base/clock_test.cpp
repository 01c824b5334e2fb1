#include "base/clock.h"

#include <gtest/gtest.h>

namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using std::chrono::system_clock;

class ClockTest : public testing::Test {
  protected:
    ~ClockTest() override { resetClockForTest(); }
};

TEST_F(ClockTest, ShowsTheRealTimeUntilSet) {
    const std::time_t tBefore = std::time(nullptr);
    const std::time_t tShown = nowSecs();
    EXPECT_LE(tBefore, tShown);
    EXPECT_LE(tShown, std::time(nullptr));
}

TEST_F(ClockTest, ShowsTheTimeThatATestSets) {
    setClockForTest(1000);
    EXPECT_EQ(1000, nowSecs());
    advanceClockForTest(61);
    EXPECT_EQ(1061, nowSecs());
}

TEST_F(ClockTest, ShowsRealMicrosecondsUntilSet) {
    const auto ptBefore = system_clock::now();
    const utc_time_t ptShown = ptNow();
    EXPECT_LE(std::chrono::floor<microseconds>(ptBefore), ptShown);
    EXPECT_LE(ptShown, system_clock::now());
}

TEST_F(ClockTest, TheMonotonicClockIsRealUntilTheWallClockIsSet) {
    const auto tBefore = steady_clock::now();
    const auto tShown = steadyNow();
    EXPECT_LE(tBefore, tShown);
    EXPECT_LE(tShown, steady_clock::now());
}

TEST_F(ClockTest, BothClocksStopOnceSet) {
    setClockForTest(1000);
    const auto tSteady = steadyNow();
    EXPECT_EQ(utc_time_t(seconds(1000)), ptNow());
    const auto tReal = steady_clock::now();
    while (steady_clock::now() == tReal) {
    }
    EXPECT_EQ(utc_time_t(seconds(1000)), ptNow());
    EXPECT_EQ(tSteady, steadyNow());
}

TEST_F(ClockTest, AdvancesByMicroseconds) {
    setClockForTest(1000);
    const auto tSteady = steadyNow();
    advanceClockForTest(microseconds(999999));
    EXPECT_EQ(1000, nowSecs()) << "whole seconds are cut off";
    EXPECT_EQ(utc_time_t(microseconds(1000999999)), ptNow());
    advanceClockForTest(microseconds(1));
    EXPECT_EQ(1001, nowSecs());
    EXPECT_EQ(utc_time_t(seconds(1001)), ptNow());
    EXPECT_EQ(tSteady + seconds(1), steadyNow());
    advanceClockForTest(milliseconds(1500));
    EXPECT_EQ(utc_time_t(milliseconds(1002500)), ptNow());
}

TEST_F(ClockTest, AdvancesByWholeSecondsInEveryForm) {
    setClockForTest(1000);
    const auto tSteady = steadyNow();
    advanceClockForTest(61);
    EXPECT_EQ(utc_time_t(seconds(1061)), ptNow());
    EXPECT_EQ(tSteady + seconds(61), steadyNow());
}

TEST_F(ClockTest, SettingTheWallClockDoesNotChangeTheMonotonicClock) {
    setClockForTest(1000);
    const auto tSteady = steadyNow();
    setClockForTest(500);
    EXPECT_EQ(tSteady, steadyNow());
    EXPECT_EQ(utc_time_t(seconds(500)), ptNow());
    EXPECT_EQ(500, nowSecs());
}

TEST_F(ClockTest, SupportsTheEpochAndTheFarFuture) {
    setClockForTest(0);
    EXPECT_EQ(0, nowSecs());
    EXPECT_EQ(utc_time_t(), ptNow());
    setClockForTest(253402300799);  // the end of the year 9999
    EXPECT_EQ(253402300799, nowSecs());
    EXPECT_EQ(utc_time_t(seconds(253402300799)), ptNow());
}

TEST_F(ClockTest, ShowsTheRealTimeAgainAfterAReset) {
    setClockForTest(1000);
    resetClockForTest();
    EXPECT_LT(1'000'000, nowSecs());
    EXPECT_LT(utc_time_t(seconds(1'000'000)), ptNow());
    const auto tBefore = steady_clock::now();
    const auto tShown = steadyNow();
    EXPECT_LE(tBefore, tShown);
    EXPECT_LE(tShown, steady_clock::now());
}

}  // namespace
