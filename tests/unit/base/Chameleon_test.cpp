#include "base/Chameleon.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

std::string sText(const Chameleon& value) {
    return value;
}

double dNumber(const Chameleon& value) {
    return value;
}

TEST(Chameleon, KeepsTextAsItIs) {
    EXPECT_EQ(" \"x\" ", sText(Chameleon(std::string(" \"x\" "))));
    EXPECT_EQ("abc", sText(Chameleon("abc")));
    EXPECT_EQ("", sText(Chameleon()));
}

TEST(Chameleon, TreatsANullPointerAsTheEmptyText) {
    const char* pszNothing = nullptr;
    EXPECT_EQ("", sText(Chameleon(pszNothing)));
}

TEST(Chameleon, WritesNumbersAsAStreamDoes) {
    EXPECT_EQ("60", sText(Chameleon(60)));
    EXPECT_EQ("0", sText(Chameleon(0)));
    EXPECT_EQ("0.5", sText(Chameleon(0.5)));
    EXPECT_EQ("-3", sText(Chameleon(-3)));
}

TEST(Chameleon, KeepsAtMostSixSignificantDigits) {
    EXPECT_EQ("3.14159", sText(Chameleon(3.14159265)));
    EXPECT_EQ("1.23457e+06", sText(Chameleon(1234567)));
}

TEST(Chameleon, FollowsTheSameRulesWhenAssigned) {
    Chameleon value("before");
    value = 0.25;
    EXPECT_EQ("0.25", sText(value));
    value = std::string("text");
    EXPECT_EQ("text", sText(value));
    value = "7 apples";
    EXPECT_EQ("7 apples", sText(value));
}

TEST(Chameleon, ReadsTheNumberAtTheBeginning) {
    EXPECT_EQ(12.0, dNumber("12abc"));
    EXPECT_EQ(-0.5, dNumber("-0.5"));
    EXPECT_EQ(0.0, dNumber("none"));
    EXPECT_EQ(0.0, dNumber(""));
}

TEST(Chameleon, ReadsExtremeNumbers) {
    EXPECT_EQ(1e300, dNumber("1e300"));
    EXPECT_TRUE(std::isinf(dNumber("1e999")));
    EXPECT_TRUE(std::isnan(dNumber("nan")));
}

}  // namespace
