#include "genner/output/ChatNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(ChatNetMessage, PacksNameAndBytes) {
    const ChatNetMessage message("SERVER", "hi\r\n~\0", 6);
    EXPECT_EQ(imageOf(message), "\x03\0\0\0\0\0\0\0\0SERVER~hi\r\n\\~\\\0~"s);
}

TEST(ChatNetMessage, ReadsNameAndBytes) {
    const auto message = received<ChatNetMessage>("SERVER~a\\~b~"s);
    EXPECT_EQ(message.GetName(), "SERVER");
    EXPECT_EQ(message.GetChat(), "a~b");
    char achChat[ChatNetMessage::nMAX_CHAT_LEN];
    int nLen = 0;
    message.GetChat(achChat, nLen);
    EXPECT_EQ(nLen, 3);
}

TEST(ChatNetMessage, KeepsAtMost449Bytes) {
    EXPECT_EQ(ChatNetMessage::nMAX_CHAT_LEN, 449);
    const auto got = received<ChatNetMessage>("~" + std::string(490, 'x') + "~");
    EXPECT_EQ(got.GetChat(), std::string(449, 'x'));
    const std::string sLong(10000, 'y');
    const ChatNetMessage made("", sLong.data(), 10000);
    EXPECT_EQ(made.GetChat(), std::string(449, 'y'));
    EXPECT_EQ(payloadOf(made), "~" + std::string(449, 'y') + "~");
}

TEST(ChatNetMessage, NoBytesForNegativeLengthsAndMissingText) {
    EXPECT_EQ(payloadOf(ChatNetMessage("a", "text", -1)), "a~~");
    EXPECT_EQ(payloadOf(ChatNetMessage("a", nullptr, 4)), "a~~");
    EXPECT_EQ(received<ChatNetMessage>("a~").GetChat(), "");
}

}  // namespace
}  // namespace Orvex
