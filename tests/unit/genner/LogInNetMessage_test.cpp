#include "genner/output/LogInNetMessage.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

/// A received login that has not been parsed yet.
class NetMessageOfType1 : public NetMessage {
  public:
    static constexpr long nTYPE = 1;
    using NetMessage::NetMessage;
};

const unsigned char kKey[] = {1, 0, 0x7E, 0x5C, 5, 6, 7, 0xFF};

TEST(LogInNetMessage, PacksItsFieldsWithTheKeyEscaped) {
    const LogInNetMessage message("relay", "pw", Function(5), "agency", kKey, -42);
    EXPECT_EQ(imageOf(message).substr(0, 1), "\x01");
    EXPECT_EQ(payloadOf(message), "relay~pw~RELAY~agency~\x01\\\0\\~\\\\\x05\x06\x07\xFF~-42~"s);
}

TEST(LogInNetMessage, ReadsBackWhatItPacks) {
    const LogInNetMessage sent("re~lay", "p\\w", Function(6), "", kKey, 7);
    const auto got = receivedFrom<LogInNetMessage>(imageOf(sent));
    EXPECT_EQ(got.GetName(), "re~lay");
    EXPECT_EQ(got.GetPassword(), "p\\w");
    EXPECT_TRUE(got.GetFunction() == 6);
    EXPECT_EQ(got.GetAgency(), "");
    EXPECT_TRUE(std::equal(kKey, kKey + 8, got.GetClientDESKey().begin()));
    EXPECT_EQ(got.GetLoginNumber(), 7);
}

TEST(LogInNetMessage, KeyFieldOfFewerThanEightBytesLeavesTheKey) {
    LogInNetMessage message("a", "b", Function(1), "c", kKey, 1);
    EXPECT_TRUE(message.bCreateFromNetMsg(received<NetMessageOfType1>("x~y~CAPTION~z~1234567~9~")));
    unsigned char achKey[8] = {};
    message.GetClientDESKey(achKey);
    EXPECT_TRUE(std::equal(kKey, kKey + 8, achKey));
    EXPECT_EQ(message.GetName(), "x");
    EXPECT_EQ(message.GetLoginNumber(), 9);
}

TEST(LogInNetMessage, KeyFieldOfEightBytesOrMoreIsTaken) {
    for (const char* payload : {"~~~~12345678~9~", "~~~~12345678901234567890~9~"}) {
        const auto got = received<LogInNetMessage>(payload);
        const std::string sKey(got.GetClientDESKey().begin(), got.GetClientDESKey().end());
        EXPECT_EQ(sKey, "12345678");
        EXPECT_EQ(got.GetLoginNumber(), 9);
    }
}

}  // namespace
}  // namespace Orvex
