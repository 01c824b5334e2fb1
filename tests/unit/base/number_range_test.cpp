#include "base/number_range.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>

#include "base/Chameleon.h"

namespace {

template <typename Int>
void expectRejected(double dValue) {
    Int n = 77;
    EXPECT_FALSE(bToInt(dValue, n)) << dValue;
    EXPECT_EQ(Int{77}, n);
}

template <typename Int>
Int converted(double dValue) {
    Int n = 77;
    EXPECT_TRUE(bToInt(dValue, n)) << dValue;
    return n;
}

TEST(NumberRange, CutsTheFractionOff) {
    EXPECT_EQ(3, converted<int>(3.99));
    EXPECT_EQ(-3, converted<int>(-3.99));
    EXPECT_EQ(0, converted<int>(-0.5));
    EXPECT_EQ(0U, converted<unsigned>(-0.99));
}

TEST(NumberRange, TakesTheWholeRangeOfAnInt) {
    EXPECT_EQ(2147483647, converted<int>(2147483647.5));
    EXPECT_EQ(std::numeric_limits<int>::min(), converted<int>(-2147483648.9));
    expectRejected<int>(2147483648.0);
    expectRejected<int>(-2147483649.0);
}

TEST(NumberRange, TakesTheWholeRangeOfOtherTypes) {
    EXPECT_EQ(65535, converted<std::uint16_t>(65535.0));
    expectRejected<std::uint16_t>(65536.0);
    expectRejected<std::uint16_t>(-1.0);
    EXPECT_EQ(std::numeric_limits<std::int64_t>::min(), converted<std::int64_t>(-0x1p63));
    // The largest 64-bit value rounds up to 2^63 as a double, which is already too large.
    expectRejected<std::int64_t>(0x1p63);
    expectRejected<std::uint64_t>(0x1p64);
}

TEST(NumberRange, RejectsWhatIsNoNumberOfAnySize) {
    expectRejected<int>(1e300);
    expectRejected<int>(-1e300);
    expectRejected<int>(std::numeric_limits<double>::quiet_NaN());
    expectRejected<int>(std::numeric_limits<double>::infinity());
    expectRejected<std::uint64_t>(-std::numeric_limits<double>::infinity());
}

TEST(NumberRange, ReadsConfigurationValuesDirectly) {
    int n = 0;
    EXPECT_TRUE(bToInt(Chameleon("9736 ports"), n));
    EXPECT_EQ(9736, n);
    EXPECT_FALSE(bToInt(Chameleon("nan"), n));
}

}  // namespace
