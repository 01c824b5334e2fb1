#include "genner/output/HeartbeatNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(HeartbeatNetMessage, IsAHeaderOnly) {
    HeartbeatNetMessage message;
    EXPECT_EQ(imageOf(message), "\x0C\0\0\0\0\0\0\0\0"s);
    EXPECT_EQ(std::string(message.frame()), "\x05\x0C\0\0\0\0\0\0\0\0"s);
    int nLen = -1;
    message.Pack(&nLen);
    EXPECT_EQ(nLen, 0);
}

TEST(HeartbeatNetMessage, CarriesTheSenderIdOfItsTime) {
    nSenderID = 3;
    const HeartbeatNetMessage message;
    nSenderID = 0;
    EXPECT_EQ(message.GetSenderID(), 3U);
}

TEST(HeartbeatNetMessage, IsReceivedWithItsIds) {
    EXPECT_EQ(received<HeartbeatNetMessage>("").GetSenderID(), 7U);
}

}  // namespace
}  // namespace Orvex
