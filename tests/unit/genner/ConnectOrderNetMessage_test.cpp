#include "genner/output/ConnectOrderNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

const unsigned char kTicket[] = {1, 0x7E, 0};

TEST(ConnectOrderNetMessage, PacksInWireOrder) {
    const ConnectOrderNetMessage message(11, 0xFF000001U, 9736, 6900, kTicket, 3, RequestCode(0),
                                         9737);
    EXPECT_EQ(imageOf(message),
              "\x0F\0\0\0\0\0\0\0\0"s + "11~4278190081~9736~\x01\\~\\\0~CONNECT~6900~9737~"s);
}

TEST(ConnectOrderNetMessage, ReadsInWireOrder) {
    const auto message = received<ConnectOrderNetMessage>("-1~0x7F000001~1~tick~UDP_REG~2~3~");
    EXPECT_EQ(message.GetConnectToID(), -1);
    EXPECT_EQ(message.GetRelayAddr(), 0x7F000001U);
    EXPECT_EQ(message.GetTcpPort(), 1);
    EXPECT_EQ(message.GetTicket().size(), 4U);
    EXPECT_TRUE(message.GetRequestCode() == 2);
    EXPECT_EQ(message.GetUdpPort(), 2);
    EXPECT_EQ(message.GetSslTcpPort(), 3);
}

TEST(ConnectOrderNetMessage, KeepsAtMost64BytesOfATicket) {
    const auto got =
        received<ConnectOrderNetMessage>("1~2~3~" + std::string(65, 't') + "~CONNECT~4~5~");
    unsigned char achTicket[ConnectOrderNetMessage::nMAX_TICKET_LEN];
    int nLen = 0;
    got.GetTicket(achTicket, nLen);
    EXPECT_EQ(nLen, 64);
    EXPECT_EQ(got.GetUdpPort(), 4);
    const std::vector<unsigned char> longTicket(400, 't');
    const ConnectOrderNetMessage made(1, 2, 3, 4, longTicket.data(), 400, RequestCode(1), 5);
    EXPECT_EQ(made.GetTicket().size(), 64U);
    EXPECT_EQ(ConnectOrderNetMessage(1, 2, 3, 4, kTicket, -9, RequestCode(1), 5).GetTicket().size(),
              0U);
}

}  // namespace
}  // namespace Orvex
