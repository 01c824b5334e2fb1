#include "orvex/UserInfo.h"

#include <gtest/gtest.h>

using Orvex::UserInfo;
using namespace std::string_literals;

TEST(UserInfo, IsEmptyAtFirst) {
    const UserInfo info;
    EXPECT_EQ(info.cID, 0);
    EXPECT_EQ(info.flags, 0);
    EXPECT_EQ(info.GetNetMsgField(), "\0\0\0\0\0\0\0\0;;"s);
}

TEST(UserInfo, TakesIdCompanyUserNameAndFlags) {
    const UserInfo info(3, "co", "user", 4);
    EXPECT_EQ(info.cID, 3);
    EXPECT_EQ(info.company, "co");
    EXPECT_EQ(info.username, "user");
    EXPECT_EQ(info.flags, 4);
    EXPECT_EQ(info.reserved, "");
}

TEST(UserInfo, WritesLittleEndianNumbersThenTheTexts) {
    UserInfo info(0x01020304, "co", "user", 0x8001);
    info.reserved = "r";
    EXPECT_EQ(info.GetNetMsgField(), "\x04\x03\x02\x01\x01\x80\0\0co;user;r"s);
}

TEST(UserInfo, ReadsAFieldWhoseReservedPartHoldsSemicolons) {
    UserInfo info;
    info.SetFromNetMsgField("\x07\0\0\0\x01\x80\0\0co;user;r;x"s);
    EXPECT_EQ(info.cID, 7);
    EXPECT_EQ(info.flags, 0x8001);
    EXPECT_EQ(info.company, "co");
    EXPECT_EQ(info.username, "user");
    EXPECT_EQ(info.reserved, "r;x");
    EXPECT_TRUE(info.IsEncoder());
    EXPECT_TRUE(info.IsDestinationOffline());
    EXPECT_FALSE(info.IsPrimaryEncoder());
    EXPECT_FALSE(info.IsActiveCaptioner());
    EXPECT_FALSE(info.IsDestinationWaiting());
}

TEST(UserInfo, ReadsEachFlagFromItsBit) {
    EXPECT_TRUE(UserInfo(0, "", "", 0x0002).IsPrimaryEncoder());
    EXPECT_TRUE(UserInfo(0, "", "", 0x0004).IsActiveCaptioner());
    EXPECT_TRUE(UserInfo(0, "", "", 0x0800).IsDestinationWaiting());
    EXPECT_FALSE(UserInfo(0, "", "", 0x0800).IsEncoder());
}

TEST(UserInfo, IgnoresAFieldOfEightBytesOrFewer) {
    UserInfo info(3, "co", "user", 4);
    info.SetFromNetMsgField("\x07\0\0\0\x01\0\0\0"s);
    EXPECT_EQ(info.cID, 3);
    info.SetFromNetMsgField("\x07\0\0\0\x01\0\0\0a"s);
    EXPECT_EQ(info.cID, 7);
}

TEST(UserInfo, KeepsTheStringsAfterAMissingSemicolon) {
    UserInfo info(3, "co", "user", 4);
    info.reserved = "r";
    info.SetFromNetMsgField("\x07\0\0\0\x01\0\0\0new"s);
    EXPECT_EQ(info.company, "co");
    info.SetFromNetMsgField("\x07\0\0\0\x01\0\0\0new;name"s);
    EXPECT_EQ(info.company, "new");
    EXPECT_EQ(info.username, "user");
    EXPECT_EQ(info.reserved, "r");
}

TEST(UserInfo, SplitsACompanyNameAtItsSemicolon) {
    UserInfo info;
    info.SetFromNetMsgField(UserInfo(1, "a;b", "user", 0).GetNetMsgField());
    EXPECT_EQ(info.company, "a");
    EXPECT_EQ(info.username, "b");
    EXPECT_EQ(info.reserved, "user;");
}
