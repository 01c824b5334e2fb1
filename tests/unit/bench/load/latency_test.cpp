#include "bench/load/latency.h"

#include <gtest/gtest.h>

namespace {

using Load::LatencyHistogram;

TEST(LatencyHistogram, HasNoPercentilesBeforeAnythingWasCounted) {
    const LatencyHistogram histogram;
    EXPECT_EQ(histogram.nPercentileNs(0.5), 0);
    EXPECT_EQ(histogram.nCount(), 0);
}

TEST(LatencyHistogram, CountsShortLatenciesExactly) {
    LatencyHistogram histogram;
    for (int n = 1; n <= 50; ++n) {
        histogram.record(n);
    }
    EXPECT_EQ(histogram.nPercentileNs(0.5), 25);
    EXPECT_EQ(histogram.nPercentileNs(0.98), 49);
    EXPECT_EQ(histogram.nPercentileNs(1.0), 50);
}

TEST(LatencyHistogram, IsNeverTooLowAndAtMostOneSixtyFourthTooHigh) {
    for (std::int64_t nNs = 1; nNs < std::int64_t{1} << 36; nNs = nNs * 5 / 3 + 1) {
        LatencyHistogram histogram;
        histogram.record(nNs);
        EXPECT_GE(histogram.nPercentileNs(0.5), nNs);
        EXPECT_LE(histogram.nPercentileNs(0.5), nNs + nNs / 64);
    }
}

TEST(LatencyHistogram, FindsTheFewSlowOnesBehindManyFastOnes) {
    LatencyHistogram histogram;
    for (int i = 0; i < 990; ++i) {
        histogram.record(1'000);
    }
    for (int i = 0; i < 10; ++i) {
        histogram.record(1'000'000);
    }
    EXPECT_LT(histogram.nPercentileNs(0.99), 1'100);
    EXPECT_GE(histogram.nPercentileNs(0.991), 1'000'000);
    EXPECT_GE(histogram.nPercentileNs(0.999), 1'000'000);
}

TEST(LatencyHistogram, KeepsWhatIsOutOfItsRangeAtItsEnds) {
    LatencyHistogram histogram;
    histogram.record(-5);
    EXPECT_EQ(histogram.nPercentileNs(1.0), 0);
    histogram.record(INT64_MAX);
    EXPECT_EQ(histogram.nPercentileNs(1.0), (std::int64_t{1} << 36) - 1);
}

TEST(LatencyHistogram, ForgetsEverythingWhenItIsReset) {
    LatencyHistogram histogram;
    histogram.record(7);
    histogram.reset();
    EXPECT_EQ(histogram.nCount(), 0);
    EXPECT_EQ(histogram.nPercentileNs(0.5), 0);
}

}  // namespace
