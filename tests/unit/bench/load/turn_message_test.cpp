#include "bench/load/turn_message.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

namespace {

using namespace Load;

/// Bytes with zeros among them.
template <std::size_t nSize>
std::string sBytes(const char (&achLiteral)[nSize]) {
    return {achLiteral, nSize - 1};
}

sockaddr_in siPeerAt(const char* sAddress, std::uint16_t nPort) {
    sockaddr_in siPeer{};
    siPeer.sin_family = AF_INET;
    siPeer.sin_port = htons(nPort);
    inet_pton(AF_INET, sAddress, &siPeer.sin_addr);
    return siPeer;
}

/// An answer of a type to a request, with attributes.
std::string sAnswerTo(const std::string& sRequest, char chLow,
                      const std::string& sAttributes = {}) {
    std::string sAnswer = sRequest.substr(0, 20);
    sAnswer[0] = 1;
    sAnswer[1] = chLow;
    sAnswer[2] = 0;
    sAnswer[3] = static_cast<char>(sAttributes.size());
    return sAnswer + sAttributes;
}

TEST(MakeAllocate, AsksForUdp) {
    EXPECT_EQ(sMakeAllocate(0x01020304),
              sBytes("\x00\x03\x00\x08\x21\x12\xA4\x42\0\0\0\0\0\0\0\0\x01\x02\x03\x04"
                     "\x00\x19\x00\x04\x11\0\0\0"));
}

// The address and its form on the wire are those of the test vectors of RFC 5769.
TEST(MakeChannelBind, NamesChannelAndPeer) {
    EXPECT_EQ(sMakeChannelBind(1, 0x4001, siPeerAt("192.0.2.1", 32853)),
              sBytes("\x00\x09\x00\x14\x21\x12\xA4\x42\0\0\0\0\0\0\0\0\0\0\0\x01"
                     "\x00\x0C\x00\x04\x40\x01\0\0"
                     "\x00\x12\x00\x08\x00\x01\xA1\x47\xE1\x12\xA6\x43"));
}

TEST(MakeChannelHead, IsChannelAndLength) {
    EXPECT_EQ(sMakeChannelHead(0x4FFF, 456), sBytes("\x4F\xFF\x01\xC8"));
}

TEST(JudgeTurnAnswer, TellsGrantedFromRefused) {
    const std::string sRequest = sMakeAllocate(5);
    EXPECT_EQ(judgeTurnAnswer(sAnswerTo(sRequest, 0x03), sRequest), TurnAnswer::kSuccess);
    EXPECT_EQ(judgeTurnAnswer(sAnswerTo(sRequest, 0x13), sRequest), TurnAnswer::kError);
    EXPECT_EQ(judgeTurnAnswer(sAnswerTo(sRequest, 0x09), sRequest), TurnAnswer::kOther);
}

TEST(JudgeTurnAnswer, PassesByWhatAnswersNothingOfOurs) {
    const std::string sRequest = sMakeAllocate(5);
    EXPECT_EQ(judgeTurnAnswer(sAnswerTo(sMakeAllocate(6), 0x03), sRequest), TurnAnswer::kOther);
    EXPECT_EQ(judgeTurnAnswer({}, sRequest), TurnAnswer::kOther);
    EXPECT_EQ(judgeTurnAnswer(sAnswerTo(sRequest, 0x03).substr(0, 19), sRequest),
              TurnAnswer::kOther);
    EXPECT_EQ(judgeTurnAnswer(sAnswerTo(sRequest, 0x03) + "more", sRequest), TurnAnswer::kOther);
}

TEST(TurnErrorCode, IsFoundBehindOtherAttributes) {
    const std::string sRealm = sBytes("\x00\x14\x00\x05realm\0\0\0");
    const std::string sUnauthorized = sBytes("\x00\x09\x00\x04\0\0\x04\x01");
    const std::string sRequest = sMakeAllocate(5);
    EXPECT_EQ(nTurnErrorCode(sAnswerTo(sRequest, 0x13, sRealm + sUnauthorized)), 401);
    EXPECT_EQ(nTurnErrorCode(sAnswerTo(sRequest, 0x13, sRealm)), 0);
    EXPECT_EQ(nTurnErrorCode(sAnswerTo(sRequest, 0x13, sUnauthorized.substr(0, 6))), 0);
}

}  // namespace
