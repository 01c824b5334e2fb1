#include "genner/output/ChallengeNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(ChallengeNetMessage, PacksItsNumber) {
    EXPECT_EQ(imageOf(ChallengeNetMessage(-123)), "\x0E\0\0\0\0\0\0\0\0"s + "-123~");
    EXPECT_EQ(payloadOf(ChallengeNetMessage()), "0~");
}

TEST(ChallengeNetMessage, ReadsItsNumber) {
    EXPECT_EQ(received<ChallengeNetMessage>("-123~").GetLoginNumber(), -123);
    EXPECT_EQ(received<ChallengeNetMessage>("0x10~").GetLoginNumber(), 0);
    EXPECT_EQ(received<ChallengeNetMessage>("").GetLoginNumber(), 0);
}

}  // namespace
}  // namespace Orvex
