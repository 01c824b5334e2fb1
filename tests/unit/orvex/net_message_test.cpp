#include "orvex/net_message.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

#include "tests/unit/orvex/net_message_fixture.h"

namespace Orvex {
namespace {

using namespace std::string_literals;

// Construction and header

TEST_F(NetMessageTest, ConstantsAreThoseOfTheProtocol) {
    EXPECT_EQ(NetMessage::nMSG_HDR_LEN, 9);
    EXPECT_EQ(NetMessage::nMAX_MSG_LEN, 508);
    EXPECT_EQ(NetMessage::nMAX_MSG_DATA_LEN, 499U);
    EXPECT_EQ(NetMessage::nMAX_UDP_MSG_LEN, 524U);
    EXPECT_EQ(NetMessage::chESC, '\\');
    EXPECT_EQ(NetMessage::chDELIM, '~');
}

TEST_F(NetMessageTest, MadeFromNothingIsUnsetAndNotInSync) {
    nSenderID = 0x01020304;
    const NetMessage message;
    EXPECT_FALSE(message.isInSync());
    EXPECT_EQ(imageOf(message), "\xFF\x04\x03\x02\x01\0\0\0\0"s);
    EXPECT_TRUE(message.GetNetMsgType() == -1);
}

TEST_F(NetMessageTest, MadeFromATypeIsInSync) {
    const NetMessage message(232);
    EXPECT_TRUE(message.isInSync());
    EXPECT_EQ(imageOf(message), "\xE8\0\0\0\0\0\0\0\0"s);
    EXPECT_EQ(message.GetMessageLen(), 9);
    EXPECT_EQ(message.GetPayloadLen(), 0);
}

TEST_F(NetMessageTest, CreateFlagChoosesBetweenSendingAndReceiving) {
    const std::string sImage = imageWith(16, "5~");
    const NetMessage created(true, 3, sImage.data(), static_cast<int>(sImage.size()));
    EXPECT_FALSE(created.isInSync());
    EXPECT_EQ(imageOf(created), "\x03\0\0\0\0\0\0\0\0"s);
    const NetMessage taken(false, 3, sImage.data(), static_cast<int>(sImage.size()));
    EXPECT_EQ(imageOf(taken), sImage);
    EXPECT_TRUE(taken.GetNetMsgType() == 16);
    EXPECT_TRUE(taken.isInSync());
}

TEST_F(NetMessageTest, ReceivedImageGivesTypeAndIds) {
    const auto message = receivedFrom<NetMessage>("\xE8\x01\x02\x03\x04\x05\x06\x07\xF8hello~"s);
    NetMessageType nmt;
    unsigned nSender = 0;
    unsigned nDest = 0;
    message.GetNetMsgType(nmt);
    message.GetSenderID(nSender);
    message.GetDestID(nDest);
    EXPECT_TRUE(nmt == 232);
    EXPECT_EQ(nSender, 0x04030201U);
    EXPECT_EQ(nDest, 0xF8070605U);
    EXPECT_EQ(message.GetPayloadLen(), 6);
}

TEST_F(NetMessageTest, ReceivedTypeByte255IsUnset) {
    EXPECT_TRUE(receivedFrom<NetMessage>(imageWith(255, "")).GetNetMsgType() == -1);
}

TEST_F(NetMessageTest, ChangingTheSenderTouchesNothingElse) {
    auto message = receivedFrom<NetMessage>(imageWith(16, "5~"));
    message.ChangeSenderID(0xAABBCCDD);
    EXPECT_EQ(imageOf(message), "\x10\xDD\xCC\xBB\xAA\x09\0\0\0"s + "5~");
    EXPECT_TRUE(message.isInSync());
}

TEST_F(NetMessageTest, DestinationIsSetInMemberAndImage) {
    NetMessage message(16);
    message.SetDestID(0x0A0B0C0D);
    EXPECT_EQ(imageOf(message), "\x10\0\0\0\0\x0D\x0C\x0B\x0A"s);
    int nLen = 0;
    message.basePack(&nLen);
    EXPECT_EQ(nLen, 9);
    EXPECT_EQ(message.GetDestID(), 0x0A0B0C0DU);
}

TEST_F(NetMessageTest, SenderIsReadWhenTheMessageIsMade) {
    TextMessage message;
    nSenderID = 5;
    message.SetText("a");
    EXPECT_EQ(sendBufferOf(message).substr(2, 4), "\0\0\0\0"s);
}

TEST_F(NetMessageTest, SenderOfARawImageNeedsNineBytes) {
    const std::string sImage = imageWith(16, "");
    EXPECT_EQ(GetNetMessageSenderID(sImage.data(), 9), 7U);
    EXPECT_EQ(GetNetMessageSenderID(sImage.data(), 8), 0xFFFFFFFFU);
    EXPECT_EQ(GetNetMessageSenderID(sImage.data(), -1), 0xFFFFFFFFU);
    EXPECT_EQ(GetNetMessageSenderID(nullptr, 100), 0xFFFFFFFFU);
}

// Sizes

TEST_F(NetMessageTest, MissingHeaderBytesReadAsZero) {
    for (std::size_t nLen = 0; nLen < 9; ++nLen) {
        auto message =
            receivedFrom<TextMessage>("\x03\x11\x11\x11\x11\x22\x22\x22\x22"s.substr(0, nLen));
        EXPECT_EQ(message.GetMessageLen(), static_cast<int>(nLen));
        EXPECT_EQ(message.GetDestID(),
                  nLen <= 5 ? 0U : 0x22222222U & ((1U << (8 * (nLen - 5))) - 1));
        message.Unpack();
        EXPECT_EQ(message.sText, "");
    }
}

TEST_F(NetMessageTest, LengthsOfReceivedImagesAreBounded) {
    const std::string sLong(10000, '~');
    NetMessage tooLong(sLong.data(), 10000);
    EXPECT_EQ(tooLong.GetMessageLen(), 509);
    EXPECT_TRUE(tooLong.frame().empty());
    EXPECT_EQ(sendBufferOf(tooLong), "");
    EXPECT_EQ(sendBufferOf(tooLong, false), "");
    const NetMessage negative(sLong.data(), -1);
    EXPECT_EQ(negative.GetMessageLen(), 0);
    const NetMessage none(nullptr, 100);
    EXPECT_EQ(none.GetMessageLen(), 0);
}

TEST_F(NetMessageTest, UpdateLengthStaysWithinTheImage) {
    NetMessage message(3);
    EXPECT_EQ(message.UpdateLength(2), 11);
    EXPECT_EQ(message.UpdateLength(-100), 9);
    EXPECT_EQ(message.UpdateLength(1000000), 509);
    EXPECT_TRUE(message.frame().empty());
    EXPECT_EQ(message.UpdateLength(0), 9);
    EXPECT_EQ(message.frame().size(), 10U);
}

TEST_F(NetMessageTest, CopiesKeepImageAndMarks) {
    const auto message = receivedFrom<NetMessage>(imageWith(16, "5~"));
    const NetMessage copy(message);
    NetMessage assigned(3);
    assigned = message;
    EXPECT_EQ(imageOf(copy), imageOf(message));
    EXPECT_EQ(imageOf(assigned), imageOf(message));
    EXPECT_TRUE(assigned.GetNetMsgType() == 16);
    EXPECT_TRUE(assigned.isInSync());
    const auto oversize = receivedFrom<NetMessage>(std::string(600, '~'));
    NetMessage oversizeCopy(oversize);
    EXPECT_TRUE(oversizeCopy.frame().empty());
}

// Packing and sync

TEST_F(NetMessageTest, PackingHappensOnlyWhenOutOfSync) {
    TextMessage message;
    message.SetText("a");
    EXPECT_FALSE(message.isInSync());
    (void)message.frame();
    (void)message.frame();
    EXPECT_EQ(message.nPacked, 1);
    EXPECT_TRUE(message.isInSync());
    message.SetText("bc");
    EXPECT_EQ(sendBufferOf(message).substr(10), "bc~~");
    EXPECT_EQ(message.nPacked, 2);
}

TEST_F(NetMessageTest, PackStoresThePayloadLength) {
    TextMessage message;
    message.sText = "abc";
    int nLen = 0;
    message.Pack(&nLen);
    EXPECT_EQ(nLen, 4);
}

TEST_F(NetMessageTest, CopyingOutAndDatagramsDoNotPack) {
    TextMessage message;
    message.SetText("a");
    EXPECT_EQ(imageOf(message).size(), 9U);
    int nLen = 0;
    message.ToRTPFormatChars(nullptr, &nLen);
    EXPECT_EQ(nLen, 25);
    EXPECT_EQ(message.nPacked, 0);
}

TEST_F(NetMessageTest, TakesOverAMessageOfItsType) {
    TextMessage message;
    EXPECT_TRUE(message.bCreateFromNetMsg(receivedFrom<NetMessage>(imageWith(3, "hi~"))));
    EXPECT_EQ(message.sText, "hi");
    EXPECT_EQ(imageOf(message), imageWith(3, "hi~"));
    EXPECT_EQ(message.GetDestID(), 9U);
    EXPECT_TRUE(message.isInSync());
}

TEST_F(NetMessageTest, RefusesAMessageOfAnotherType) {
    TextMessage message;
    message.SetText("kept");
    EXPECT_FALSE(message.bCreateFromNetMsg(receivedFrom<NetMessage>(imageWith(4, "hi~"))));
    EXPECT_EQ(message.sText, "kept");
    EXPECT_EQ(message.GetDestID(), 0U);
    EXPECT_FALSE(message.isInSync());
}

TEST_F(NetMessageTest, WithoutTypeTakesOverAnyMessage) {
    NetMessage message;
    EXPECT_TRUE(message.bCreateFromNetMsg(receivedFrom<NetMessage>(imageWith(4, "hi~"))));
    EXPECT_TRUE(message.GetNetMsgType() == 4);
    NetMessage fromOversize;
    EXPECT_TRUE(fromOversize.bCreateFromNetMsg(receivedFrom<NetMessage>(std::string(600, '~'))));
    EXPECT_TRUE(fromOversize.frame().empty());
}

// Dump

std::string printed(const std::string& sImage, int nField, bool bHex) {
    std::ostringstream out;
    receivedFrom<NetMessage>(sImage).Print(out, nField, bHex);
    return out.str();
}

TEST_F(NetMessageTest, DumpShowsControlCodesAsCarets) {
    EXPECT_EQ(printed("\0\x01\x1A\x1B\x1F A~\x7F"s, 0, false), "[00]^A^Z[1b][1f] A~\x7F");
    EXPECT_EQ(printed("\xC1\x81\x80\x9B"s, 0, false), "A^A[80][9b]");
}

TEST_F(NetMessageTest, DumpShowsHexadecimal) {
    EXPECT_EQ(printed("\x05\xAF~", 0, true), "[05][af][7e]");
}

TEST_F(NetMessageTest, DumpSelectsBytesByTheirHighBit) {
    EXPECT_EQ(printed("A\xC2"
                      "C",
                      1, false),
              "AC");
    EXPECT_EQ(printed("A\xC2"
                      "C",
                      2, false),
              "B");
    EXPECT_EQ(printed("A\xC2"
                      "C",
                      3, false),
              "");
    EXPECT_EQ(printed("A\xC2"
                      "C",
                      -1, true),
              "");
}

}  // namespace
}  // namespace Orvex
