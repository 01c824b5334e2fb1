#include "genner/output/RelayPortNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(RelayPortNetMessage, PacksBothForms) {
    EXPECT_EQ(imageOf(RelayPortNetMessage(9736, 6900)),
              "\xE1\0\0\0\0\0\0\0\0"s + "9736~6900~0~0~0~");
    EXPECT_EQ(payloadOf(RelayPortNetMessage(4000000000U, 1, 2, 3, 5U)), "1~2~4000000000~3~5~");
}

TEST(RelayPortNetMessage, ReadsTheWholeForm) {
    const auto message = received<RelayPortNetMessage>("1~2~0x7F000001~3~4~");
    EXPECT_EQ(message.GetTcpPort(), 1);
    EXPECT_EQ(message.GetUdpPort(), 2);
    EXPECT_EQ(message.GetAddr(), 0x7F000001U);
    EXPECT_EQ(message.GetSslTcpPort(), 3);
    EXPECT_EQ(message.GetPrivateAddr(), 4U);
}

TEST(RelayPortNetMessage, EmptyAddressEndsReading) {
    for (const char* payload : {"1~2~~", "1~2~", "1~2~~3~4~"}) {
        const auto message = received<RelayPortNetMessage>(payload);
        EXPECT_EQ(message.GetAddr(), 0U) << payload;
        EXPECT_EQ(message.GetSslTcpPort(), 0) << payload;
        EXPECT_EQ(message.GetPrivateAddr(), 0U) << payload;
    }
}

TEST(RelayPortNetMessage, EmptyAddressKeepsEarlierPorts) {
    RelayPortNetMessage message(6U, 1, 2, 3, 5U);
    EXPECT_TRUE(message.bCreateFromNetMsg(received<RelayPortNetMessage>("8~9~~7~7~")));
    EXPECT_EQ(message.GetTcpPort(), 8);
    EXPECT_EQ(message.GetAddr(), 0U);
    EXPECT_EQ(message.GetSslTcpPort(), 3);
    EXPECT_EQ(message.GetPrivateAddr(), 5U);
}

TEST(RelayPortNetMessage, EmptyPrivateAddressIsNone) {
    RelayPortNetMessage message(6U, 1, 2, 3, 5U);
    EXPECT_TRUE(message.bCreateFromNetMsg(received<RelayPortNetMessage>("8~9~1~7~")));
    EXPECT_EQ(message.GetSslTcpPort(), 7);
    EXPECT_EQ(message.GetPrivateAddr(), 0U);
}

}  // namespace
}  // namespace Orvex
