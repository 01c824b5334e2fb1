#include "genner/output/LostConnectionNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(LostConnectionNetMessage, PacksItsNumber) {
    EXPECT_EQ(imageOf(LostConnectionNetMessage(4242)), "\x12\0\0\0\0\0\0\0\0"s + "4242~");
    EXPECT_EQ(payloadOf(LostConnectionNetMessage()), "0~");
}

TEST(LostConnectionNetMessage, ReadsItsNumber) {
    EXPECT_EQ(received<LostConnectionNetMessage>("4242~").GetClientID(), 4242);
    EXPECT_EQ(received<LostConnectionNetMessage>("4294967295~").GetClientID(), -1);
    EXPECT_EQ(received<LostConnectionNetMessage>("").GetClientID(), 0);
}

}  // namespace
}  // namespace Orvex
