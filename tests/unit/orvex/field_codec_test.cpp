#include "orvex/field_codec.h"

#include <gtest/gtest.h>

namespace Orvex {
namespace {

TEST(FieldCodec, DecReadsLeadingDigitsOnly) {
    EXPECT_EQ(nDecOf("42"), 42);
    EXPECT_EQ(nDecOf(" -7x"), -7);
    EXPECT_EQ(nDecOf("0x10"), 0);
    EXPECT_EQ(nDecOf("010"), 10);
    EXPECT_EQ(nDecOf(""), 0);
    EXPECT_EQ(nDecOf("abc"), 0);
}

TEST(FieldCodec, DecClampsToALongAndTakesItsLowBits) {
    EXPECT_EQ(nDecOf("4294967296"), 0);
    EXPECT_EQ(nDecOf("4294967295"), -1);
    EXPECT_EQ(nDecOf(std::string(400, '9')), -1);
    EXPECT_EQ(nDecOf("-" + std::string(400, '9')), 0);
}

TEST(FieldCodec, UdecReadsAnyBase) {
    EXPECT_EQ(nUdecOf("4294967295"), 4294967295U);
    EXPECT_EQ(nUdecOf("0x10"), 16U);
    EXPECT_EQ(nUdecOf("010"), 8U);
    EXPECT_EQ(nUdecOf(""), 0U);
    EXPECT_EQ(nUdecOf("-1"), 4294967295U);
    EXPECT_EQ(nUdecOf(std::string(400, '9')), 4294967295U);
}

TEST(FieldCodec, LengthsAreBoundedBothWays) {
    const char data[4] = {};
    EXPECT_EQ(nBoundedLen(data, 3, 64), 3);
    EXPECT_EQ(nBoundedLen(data, 65, 64), 64);
    EXPECT_EQ(nBoundedLen(data, -1, 64), 0);
    EXPECT_EQ(nBoundedLen(nullptr, 3, 64), 0);
}

}  // namespace
}  // namespace Orvex
