#include "genner/output/TicketRequestNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(TicketRequestNetMessage, PacksItsFields) {
    EXPECT_EQ(imageOf(TicketRequestNetMessage(12, RequestCode(2))),
              "\x14\0\0\0\0\0\0\0\0"s + "12~UDP_REG~");
}

TEST(TicketRequestNetMessage, ReadsItsFields) {
    const auto message = received<TicketRequestNetMessage>("-12~CONNECT~");
    EXPECT_EQ(message.GetRequestedID(), -12);
    EXPECT_EQ(message.GetRequestCode().ToInt(), 0);
}

}  // namespace
}  // namespace Orvex
