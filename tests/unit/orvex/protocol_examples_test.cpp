// The worked examples of docs/protocol.md: a change here is a change there.
#include <gtest/gtest.h>

#include <array>

#include "genner/output/HeartbeatNetMessage.h"
#include "genner/output/RelayConnectNetMessage.h"
#include "genner/output/ResponseNetMessage.h"
#include "genner/output/VideoFeedbackNetMessage.h"
#include "orvex/orvex.h"
#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

/// The bytes of a text of hexadecimal digits and blanks.
std::string bytes(std::string sHex) {
    std::erase(sHex, ' ');
    std::string sBytes;
    for (std::size_t i = 0; i < sHex.size(); i += 2) {
        sBytes += static_cast<char>(std::stoi(sHex.substr(i, 2), nullptr, 16));
    }
    return sBytes;
}

TEST(ProtocolExamples, ResponseImage) {
    EXPECT_EQ(imageOf(ResponseNetMessage(5, ReturnCode(0))),
              bytes("00 00000000 00000000 35 7E 4F 4B 7E"));
}

TEST(ProtocolExamples, EscapedField) {
    std::string sField = bytes("61 7E 62 5C 63 00");
    std::array<char, NetMessage::nMAX_MSG_DATA_LEN> achPayload;
    int nIndex = 0;
    NetMessage::SetField(sField, nIndex, achPayload.data());
    EXPECT_EQ(std::string(achPayload.data(), static_cast<std::size_t>(nIndex)),
              bytes("61 5C7E 62 5C5C 63 5C00 7E"));
}

TEST(ProtocolExamples, StreamFrames) {
    HeartbeatNetMessage heartbeat;
    EXPECT_EQ(std::string(heartbeat.frame()), bytes("05 0C 00000000 00000000"));
    ResponseNetMessage response(5, ReturnCode(0));
    EXPECT_EQ(std::string(response.frame()), bytes("08 00 00000000 00000000 35 7E 4F 4B 7E 7E"));
}

TEST(ProtocolExamples, RegistrationDatagram) {
    const unsigned char achTicket[] = {1, 2};
    RelayConnectNetMessage message(258, achTicket, 2);
    message.ChangeSenderID(258);
    std::array<char, NetMessage::nMAX_UDP_MSG_LEN> achOut;
    int nLen = 0;
    message.ToRTPFormatChars(achOut.data(), &nLen);
    EXPECT_EQ(std::string(achOut.data(), static_cast<std::size_t>(nLen)),
              bytes("000000000000000000000000 02010000 13 02010000 00000000 32 35 38 7E 01 02 7E"));
}

TEST(ProtocolExamples, Ticket) {
    std::array<unsigned char, 16> achTicket;
    KTicket(0x01020304, 0x0A000001, 0x5F000000).SerializeToChars(achTicket, nullptr);
    EXPECT_EQ(std::string(achTicket.begin(), achTicket.end()),
              bytes("04030201 0100000A 0000005F 00000000"));
}

TEST(ProtocolExamples, PagingField) {
    VideoFeedbackNetMessage message;
    message.SetPageMarker(2, 5);
    message.Pack(nullptr);
    EXPECT_EQ(payloadOf(message).substr(0, 4), "517~");
}

}  // namespace
}  // namespace Orvex
