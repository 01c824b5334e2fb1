#include "genner/output/ResponseNetMessage.h"

#include <gtest/gtest.h>

#include "tests/unit/orvex/image_bytes.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

TEST(ResponseNetMessage, PacksClientIdAndReturnCode) {
    EXPECT_EQ(imageOf(ResponseNetMessage(5, ReturnCode(0))), "\0\0\0\0\0\0\0\0\0"s + "5~OK~");
    EXPECT_EQ(payloadOf(ResponseNetMessage(4294967295U, ReturnCode(8))), "4294967295~REDIRECT~");
    EXPECT_EQ(payloadOf(ResponseNetMessage()), "0~INVALID~");
}

TEST(ResponseNetMessage, ReadsClientIdInAnyBaseAndReturnCode) {
    const auto message = received<ResponseNetMessage>("0x10~UDP UNAUTHORIZED~~");
    EXPECT_EQ(message.GetClientID(), 16U);
    EXPECT_TRUE(message.GetReturnCode() == 4);
    EXPECT_TRUE(message.isInSync());
}

TEST(ResponseNetMessage, MissingFieldsReadAsZeroAndUnknown) {
    const auto empty = received<ResponseNetMessage>("");
    EXPECT_EQ(empty.GetClientID(), 0U);
    EXPECT_TRUE(empty.GetReturnCode() == -1);
    const auto shortImage = receivedFrom<ResponseNetMessage>("\0\x01\x02"s);
    EXPECT_EQ(shortImage.GetClientID(), 0U);
}

TEST(ResponseNetMessage, GettersStoreWhereAsked) {
    const ResponseNetMessage message(5, ReturnCode(3));
    unsigned nID = 0;
    ReturnCode code;
    message.GetClientID(nID);
    message.GetReturnCode(code);
    EXPECT_EQ(nID, 5U);
    EXPECT_TRUE(code == 3);
}

TEST(ResponseNetMessage, SettersAskForPacking) {
    ResponseNetMessage message(5, ReturnCode(0));
    message.SetClientID(6);
    EXPECT_FALSE(message.isInSync());
    EXPECT_EQ(std::string(message.frame()).substr(10), "6~OK~~");
}

TEST(ResponseNetMessage, HeaderIsNotPackedAgain) {
    ResponseNetMessage message(5, ReturnCode(0));
    message.ChangeSenderID(8);
    message.SetDestID(9);
    message.SetClientID(6);
    message.Pack(nullptr);
    EXPECT_EQ(imageOf(message), "\0\x08\0\0\0\x09\0\0\0"s + "6~OK~");
}

}  // namespace
}  // namespace Orvex
