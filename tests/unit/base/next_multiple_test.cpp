#include "base/next_multiple.h"

#include <gtest/gtest.h>

#include <climits>

namespace {

TEST(NextMultiple, IsNeverTheCountItself) {
    EXPECT_EQ(200000U, nStepsToMultiple(0, 200000));
    EXPECT_EQ(200000U, nStepsToMultiple(200000U, 200000));
}

TEST(NextMultiple, IsAboveTheCount) {
    EXPECT_EQ(1U, nStepsToMultiple(199999, 200000));
    EXPECT_EQ(199999U, nStepsToMultiple(200001U, 200000));
}

TEST(NextMultiple, IsTheOneTowardsZeroForANegativeCount) {
    EXPECT_EQ(1U, nStepsToMultiple(-1, 200000));
    EXPECT_EQ(200000U, nStepsToMultiple(-200000, 200000));
    EXPECT_EQ(83648U, nStepsToMultiple(INT_MIN, 200000));
}

TEST(NextMultiple, IsZeroWhereAnUnsignedCounterWraps) {
    EXPECT_EQ(5U, nStepsToMultiple(UINT_MAX - 4U, 200000));
    EXPECT_GT(nStepsToMultiple(INT_MAX, 200000), 65536U);
}

}  // namespace
