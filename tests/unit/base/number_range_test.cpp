#include "base/number_range.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "base/Chameleon.h"

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

TEST(NumberRange, DropsTheFraction) {
    EXPECT_EQ(3, nSaturated<int>(3.99));
    EXPECT_EQ(-3, nSaturated<int>(-3.99));
    EXPECT_EQ(0, nSaturated<int>(-0.5));
    EXPECT_EQ(0U, nSaturated<unsigned>(-0.99));
}

TEST(NumberRange, CoversTheWholeRangeOfAType) {
    EXPECT_EQ(2147483647, nSaturated<int>(2147483647.5));
    EXPECT_EQ(std::numeric_limits<int>::min(), nSaturated<int>(-2147483648.9));
    EXPECT_EQ(65535, nSaturated<std::uint16_t>(65535.0));
    EXPECT_EQ(4294967295U, nSaturated<unsigned>(4294967295.0));
}

TEST(NumberRange, ClampsToTheNearestEnd) {
    EXPECT_EQ(2147483647, nSaturated<int>(2147483648.0));
    EXPECT_EQ(2147483647, nSaturated<int>(1e300));
    EXPECT_EQ(std::numeric_limits<int>::min(), nSaturated<int>(-kInfinity));
    EXPECT_EQ(65535, nSaturated<std::uint16_t>(65536.0));
    EXPECT_EQ(0U, nSaturated<unsigned>(-1.0));
    // The largest 64-bit value rounds up to 2^63 as a double, which is already too large.
    EXPECT_EQ(std::numeric_limits<std::int64_t>::max(), nSaturated<std::int64_t>(0x1p63));
    EXPECT_EQ(std::numeric_limits<std::uint64_t>::max(), nSaturated<std::uint64_t>(kInfinity));
}

TEST(NumberRange, TreatsNotANumberAsZero) {
    EXPECT_EQ(0, nSaturated<int>(std::numeric_limits<double>::quiet_NaN()));
}

TEST(NumberRange, ReadsConfigurationValuesDirectly) {
    EXPECT_EQ(9736, nSaturated<int>(Chameleon("9736 ports")));
    EXPECT_EQ(0, nSaturated<int>(Chameleon("none")));
}

}  // namespace
