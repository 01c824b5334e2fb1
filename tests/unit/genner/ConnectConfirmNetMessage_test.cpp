#include "genner/output/ConnectConfirmNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(ConnectConfirmNetMessage, PacksItsNumber) {
    EXPECT_EQ(imageOf(ConnectConfirmNetMessage(4242)), "\x10\0\0\0\0\0\0\0\0"s + "4242~");
    EXPECT_EQ(payloadOf(ConnectConfirmNetMessage()), "0~");
}

TEST(ConnectConfirmNetMessage, ReadsItsNumber) {
    EXPECT_EQ(received<ConnectConfirmNetMessage>("4242~").GetClientID(), 4242);
    EXPECT_EQ(received<ConnectConfirmNetMessage>("-1x~").GetClientID(), -1);
    EXPECT_EQ(received<ConnectConfirmNetMessage>("").GetClientID(), 0);
}

}  // namespace
}  // namespace Orvex
