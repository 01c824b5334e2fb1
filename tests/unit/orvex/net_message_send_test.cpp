// How a message leaves: as a stream frame, in a batch, and as a datagram.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "orvex/net_message.h"
#include "tests/unit/orvex/net_message_fixture.h"

namespace Orvex {
namespace {

using namespace std::string_literals;
using NetMessageSendTest = NetMessageTest;

/// Keeps what is written and returns what a test has set.
struct FakeSocket {
    int getMsgSockFileDesc() { return 42; }
    int write_n_with_timeout(int f, const void* addr, int n, int secs, int microSecs) {
        ++nCalls;
        nFd = f;
        nTimeoutMicroSecs = secs * 1000000 + microSecs;
        sWritten.assign(static_cast<const char*>(addr), static_cast<std::size_t>(n));
        return nAnswer == kAll ? n : nAnswer;
    }
    static constexpr int kAll = -100;
    int nAnswer = kAll;
    int nCalls = 0;
    int nFd = -1;
    int nTimeoutMicroSecs = 0;
    std::string sWritten;
};

// Stream frames

TEST_F(NetMessageSendTest, OddImageIsFramedAsItIs) {
    auto message = receivedFrom<NetMessage>(imageOfLen(17));
    EXPECT_EQ(sendBufferOf(message), "\x09"s + imageOfLen(17));
}

TEST_F(NetMessageSendTest, EvenImageIsPaddedAndKeepsItsPad) {
    auto message = receivedFrom<NetMessage>(imageOfLen(18));
    EXPECT_EQ(sendBufferOf(message), "\x0A"s + imageOfLen(18) + "~");
    EXPECT_EQ(message.GetMessageLen(), 19);
    EXPECT_EQ(sendBufferOf(message), "\x0A"s + imageOfLen(18) + "~");
}

TEST_F(NetMessageSendTest, UnframedImageHasNoLengthAndNoPad) {
    auto message = receivedFrom<NetMessage>(imageOfLen(18));
    EXPECT_EQ(sendBufferOf(message, false), imageOfLen(18));
}

TEST_F(NetMessageSendTest, EmptyImageIsNeverFramedWithALengthOfZero) {
    auto message = receivedFrom<NetMessage>("");
    EXPECT_EQ(sendBufferOf(message), "\x01~");
}

TEST_F(NetMessageSendTest, FiveHundredTenBytesAreOversizeWhateverTheirEnd) {
    auto message = receivedFrom<NetMessage>(std::string(510, '~'));
    EXPECT_TRUE(message.frame().empty());
}

TEST_F(NetMessageSendTest, MaximalImageIsFramedAnyNumberOfTimes) {
    const std::string sImage = imageOfLen(508);
    auto message = receivedFrom<NetMessage>(sImage);
    const std::string sFrame = "\xFF"s + sImage + "~";
    FakeSocket sock;
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(std::string(message.frame()), sFrame);
        EXPECT_EQ(sendBufferOf(message), sFrame);
        EXPECT_EQ(message.Send(true, sock), 510);
        EXPECT_EQ(sock.sWritten, sFrame);
        EXPECT_EQ(sendBufferOf(message, false), sImage);
    }
}

TEST_F(NetMessageSendTest, PaddedMaximalImageIsKeptAndFramedUnchanged) {
    const std::string sImage = imageOfLen(508) + "~";
    auto message = receivedFrom<NetMessage>(sImage);
    EXPECT_EQ(message.GetMessageLen(), 509);
    EXPECT_EQ(imageOf(message), sImage);
    EXPECT_EQ(std::string(message.frame()), "\xFF"s + sImage);
    EXPECT_EQ(std::string(message.frame()), "\xFF"s + sImage);
}

TEST_F(NetMessageSendTest, FiveHundredNineBytesWithoutPadAreOversize) {
    auto message = receivedFrom<NetMessage>(imageOfLen(509));
    FakeSocket sock;
    EXPECT_TRUE(message.frame().empty());
    EXPECT_EQ(sendBufferOf(message), "");
    EXPECT_EQ(message.Send(true, sock), 0);
    EXPECT_EQ(sock.nCalls, 0);
}

TEST_F(NetMessageSendTest, SendWritesTheFrameWithOneMillisecond) {
    NetMessage message(12);
    FakeSocket sock;
    EXPECT_EQ(message.Send(true, sock), 10);
    EXPECT_EQ(sock.sWritten, "\x05\x0C\0\0\0\0\0\0\0\0"s);
    EXPECT_EQ(sock.nFd, 42);
    EXPECT_EQ(sock.nTimeoutMicroSecs, 1000);
    EXPECT_EQ(message.Send(false, sock), 9);
}

TEST_F(NetMessageSendTest, SendFailsWhenNotAllIsWritten) {
    NetMessage message(12);
    FakeSocket sock;
    for (const int nAnswer : {9, 0, -1}) {
        sock.nAnswer = nAnswer;
        EXPECT_EQ(message.Send(true, sock), -1) << nAnswer;
    }
}

TEST_F(NetMessageSendTest, BatchIsWrittenInOneGoWithoutOversizeMessages) {
    NetMessage heartbeat(12);
    auto oversize = receivedFrom<NetMessage>(std::string(600, 'x'));
    auto even = receivedFrom<NetMessage>(imageOfLen(10));
    NetMessage* messages[] = {&heartbeat, &oversize, &even};
    FakeSocket sock;
    EXPECT_EQ(NetMessage::Send(messages, 3, true, sock), 22);
    EXPECT_EQ(sock.nCalls, 1);
    EXPECT_EQ(sock.sWritten, "\x05\x0C\0\0\0\0\0\0\0\0\x06"s + imageOfLen(10) + "~");
    EXPECT_EQ(NetMessage::Send(messages, 0, true, sock), 0);
    EXPECT_EQ(sock.nCalls, 1);
}

// Datagrams

TEST_F(NetMessageSendTest, DatagramCarriesTheProcessSenderId) {
    nSenderID = 0x01020304;
    const auto message = receivedFrom<NetMessage>(imageWith(19, "1~"));
    char achOut[524];
    std::memset(achOut, 'z', sizeof achOut);
    int nLen = 524;
    EXPECT_EQ(message.GetUdpSendToBuffer(achOut, &nLen), 27);
    EXPECT_EQ(nLen, 27);
    EXPECT_EQ(std::string(achOut, 28),
              std::string(12, '\0') + "\x04\x03\x02\x01" + imageWith(19, "1~") + "z");
}

TEST_F(NetMessageSendTest, DatagramNeedsRoomForTheLargest) {
    const NetMessage message(12);
    char achOut[524] = {'z'};
    int nLen = 523;
    EXPECT_EQ(message.GetUdpSendToBuffer(achOut, &nLen), 0);
    EXPECT_EQ(nLen, 0);
    EXPECT_EQ(achOut[0], 'z');
}

TEST_F(NetMessageSendTest, RtpFormCarriesTheMessagesOwnSenderId) {
    nSenderID = 0x01020304;
    const auto message = receivedFrom<NetMessage>(imageWith(19, "1~"));
    char achOut[524];
    int nLen = 0;
    message.ToRTPFormatChars(achOut, &nLen);
    EXPECT_EQ(std::string(achOut, static_cast<std::size_t>(nLen)),
              std::string(12, '\0') + "\x07\0\0\0"s + imageWith(19, "1~"));
    message.ToRTPFormatChars(achOut, nullptr);
    message.ToRTPFormatChars(nullptr, nullptr);
}

TEST_F(NetMessageSendTest, DatagramNeverExceedsItsLimit) {
    const auto achOut = std::make_unique<char[]>(524);
    const auto padded = receivedFrom<NetMessage>(imageOfLen(508) + "~");
    int nLen = 0;
    padded.ToRTPFormatChars(achOut.get(), &nLen);
    EXPECT_EQ(nLen, 524);
    EXPECT_EQ(std::string(achOut.get() + 16, 508), imageOfLen(508));
    const auto oversize = receivedFrom<NetMessage>(imageOfLen(509));
    oversize.ToRTPFormatChars(achOut.get(), &nLen);
    EXPECT_EQ(nLen, 0);
    nLen = 524;
    EXPECT_EQ(oversize.GetUdpSendToBuffer(achOut.get(), &nLen), 0);
}

TEST_F(NetMessageSendTest, SendToSendsTheRtpForm) {
    const int nSock = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in si{};
    si.sin_family = AF_INET;
    si.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t nSize = sizeof si;
    ASSERT_EQ(::bind(nSock, reinterpret_cast<sockaddr*>(&si), sizeof si), 0);
    ASSERT_EQ(::getsockname(nSock, reinterpret_cast<sockaddr*>(&si), &nSize), 0);
    EXPECT_EQ(receivedFrom<NetMessage>(imageWith(19, "1~")).SendTo(nSock, si), 27);
    char achIn[600];
    // A datagram to a loopback socket is queued before sendto returns.
    const auto nGot = ::recv(nSock, achIn, sizeof achIn, MSG_DONTWAIT);
    ASSERT_EQ(nGot, 27);
    EXPECT_EQ(std::string(achIn + 12, 15), "\x07\0\0\0"s + imageWith(19, "1~"));
    EXPECT_EQ(receivedFrom<NetMessage>(imageOfLen(509)).SendTo(nSock, si), -1);
    EXPECT_EQ(errno, EMSGSIZE);
    ::close(nSock);
}

}  // namespace
}  // namespace Orvex
