#include "orvex/message_codes.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

namespace Orvex {
namespace {

using texts_t = std::vector<std::pair<long, std::string>>;

template <class Code>
void expectTable(const texts_t& rTexts) {
    for (const auto& [lValue, sText] : rTexts) {
        EXPECT_EQ(Code(sText).ToLong(), lValue) << sText;
        std::string sOut;
        Code(lValue).ToString(sOut);
        EXPECT_EQ(sOut, sText) << lValue;
    }
}

template <class Code>
void expectInvalid(long lValue) {
    std::string sOut;
    Code(lValue).ToString(sOut);
    EXPECT_EQ(sOut, "INVALID") << lValue;
}

TEST(ReturnCode, HasItsTableOfTexts) {
    expectTable<ReturnCode>({{0, "OK"},
                             {1, "NOT LOGGED IN"},
                             {2, "UNAUTHORIZED"},
                             {3, "NO CONTINUE"},
                             {4, "UDP UNAUTHORIZED"},
                             {5, "SERVICE2 OK"},
                             {6, "SERVICE3 OK"},
                             {7, "SERVICE4 OK"},
                             {8, "REDIRECT"},
                             {9, "SERVICE5 OK"},
                             {10, "SERVICE6 OK"}});
    expectInvalid<ReturnCode>(11);
    expectInvalid<ReturnCode>(-1);
}

TEST(RequestCode, HasItsTableOfTexts) {
    expectTable<RequestCode>({{0, "CONNECT"}, {1, "DISCONNECT"}, {2, "UDP_REG"}});
    expectInvalid<RequestCode>(3);
    EXPECT_EQ(RequestCode(std::string("UDP_REG")).ToInt(), 2);
}

TEST(Function, HasItsTableOfTextsWithTheGaps) {
    expectTable<Function>({{1, "ENCODE"},
                           {2, "CAPTION"},
                           {4, "MONITOR"},
                           {5, "RELAY"},
                           {6, "CONTINUE"},
                           {7, "TEXTCAST"}});
    expectInvalid<Function>(0);
    expectInvalid<Function>(3);
    expectInvalid<Function>(8);
}

TEST(ReturnCode, TextIsComparedWholeAndCaseSensitively) {
    for (const char* text : {"ok", " OK", "OK ", "O", "", "0", "INVALID"}) {
        EXPECT_EQ(ReturnCode(std::string(text)).ToLong(), -1) << text;
    }
    EXPECT_EQ(ReturnCode(std::string("OK\0", 3)).ToLong(), -1);
    EXPECT_EQ(RequestCode(std::string("connect")).ToLong(), -1);
    EXPECT_EQ(Function(std::string("RELAY ")).ToLong(), -1);
}

TEST(Codes, AreUnsetWhenMadeFromNothing) {
    EXPECT_TRUE(NetMessageType() == -1);
    EXPECT_TRUE(ReturnCode() == -1);
    EXPECT_TRUE(RequestCode() == -1);
    EXPECT_TRUE(Function() == -1);
}

TEST(Codes, CompareWithTheirKindAndWithNumbers) {
    EXPECT_TRUE(ReturnCode(8) == ReturnCode(std::string("REDIRECT")));
    EXPECT_FALSE(ReturnCode(8) == ReturnCode(7));
    EXPECT_TRUE(RequestCode(1) == 1);
    EXPECT_TRUE(Function(6) != 5);
    EXPECT_TRUE(NetMessageType(16) == NetMessageType(16));
}

TEST(NetMessageType, IsReadUnsignedFromTheFirstByte) {
    EXPECT_EQ(NetMessageType("\xE8zz", 3).ToLong(), 232);
    EXPECT_EQ(NetMessageType("\xFE", 0).ToLong(), 254);
}

TEST(NetMessageType, ByteTwoHundredFiftyFiveIsUnsetBothWays) {
    const NetMessageType nmtUnset("\xFF", 1);
    EXPECT_TRUE(nmtUnset == -1);
    char ch = 0;
    int nLen = 0;
    nmtUnset.ToChars(&ch, &nLen);
    EXPECT_EQ(ch, '\xFF');
    EXPECT_EQ(nLen, 1);
}

TEST(NetMessageType, WritesOnlyWhereAsked) {
    char ch = 0;
    NetMessageType(232).ToChars(&ch, nullptr);
    EXPECT_EQ(ch, '\xE8');
    int nLen = 0;
    NetMessageType(232).ToChars(nullptr, &nLen);
    EXPECT_EQ(nLen, 1);
}

}  // namespace
}  // namespace Orvex
