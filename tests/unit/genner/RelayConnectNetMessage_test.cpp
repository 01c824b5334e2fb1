#include "genner/output/RelayConnectNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(RelayConnectNetMessage, PacksClientIdAndTicket) {
    const unsigned char achTicket[] = {0x5C, 0xFF, 0x7E};
    const RelayConnectNetMessage message(4294967295U, achTicket, 3);
    EXPECT_EQ(imageOf(message), "\x13\0\0\0\0\0\0\0\0"s + "4294967295~\\\\\xFF\\~~");
}

TEST(RelayConnectNetMessage, TicketsOfAnyLengthUpTo64ReadBack) {
    for (int nLen = 0; nLen <= 64; ++nLen) {
        const std::vector<unsigned char> ticket(static_cast<std::size_t>(nLen), 0x7E);
        const RelayConnectNetMessage sent(1, ticket.data(), nLen);
        const auto got = receivedFrom<RelayConnectNetMessage>(imageOf(sent));
        EXPECT_EQ(std::vector<unsigned char>(got.GetTicket().begin(), got.GetTicket().end()),
                  ticket);
    }
}

TEST(RelayConnectNetMessage, KeepsTheFirst64BytesOfALongerTicket) {
    const auto got =
        received<RelayConnectNetMessage>("1~" + std::string(64, 'a') + std::string(100, 'b') + "~");
    EXPECT_EQ(std::string(got.GetTicket().begin(), got.GetTicket().end()), std::string(64, 'a'));
    const std::vector<unsigned char> longTicket(1000, 'c');
    EXPECT_EQ(RelayConnectNetMessage(1, longTicket.data(), 1000).GetTicket().size(), 64U);
    EXPECT_EQ(RelayConnectNetMessage(1, longTicket.data(), -1).GetTicket().size(), 0U);
    EXPECT_EQ(RelayConnectNetMessage(1, nullptr, 5).GetTicket().size(), 0U);
}

}  // namespace
}  // namespace Orvex
