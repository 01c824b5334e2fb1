#include "genner/output/RoutingUpdateNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(RoutingUpdateNetMessage, PacksItsFields) {
    const RoutingUpdateNetMessage message(RequestCode(1), 3000000000U, 4, -1);
    EXPECT_EQ(imageOf(message), "\x11\0\0\0\0\0\0\0\0"s + "DISCONNECT~3000000000~4~-1~");
}

TEST(RoutingUpdateNetMessage, ReadsIdsInAnyBase) {
    const auto message = received<RoutingUpdateNetMessage>("CONNECT~0x10~010~64~");
    EXPECT_TRUE(message.GetRequestCode() == 0);
    EXPECT_EQ(message.GetFromID(), 16U);
    EXPECT_EQ(message.GetToID(), 8U);
    EXPECT_EQ(message.GetMsgClass(), 64);
}

TEST(RoutingUpdateNetMessage, UnknownRequestIsMinusOne) {
    EXPECT_TRUE(received<RoutingUpdateNetMessage>("connect~1~2~3~").GetRequestCode() == -1);
}

}  // namespace
}  // namespace Orvex
