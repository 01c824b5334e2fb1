// Reading from busy senders, and the count of bytes that a write reports.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <string>
#include <thread>

#include "orvex/relay_message_socket.h"
#include "tests/unit/orvex/socket_fixtures.h"

using Orvex::InputBuffer;
using Orvex::RelayMessageSocket;
using namespace std::string_literals;

namespace {

/// A frame of 510 bytes.
std::string sLargest(char ch) {
    return "\xFF" + std::string(509, ch);
}

/// A frame of 256 bytes.
std::string sSmall(char ch) {
    return "\x80" + std::string(255, ch);
}

/// `nFrames` of the largest frames, each of another letter.
std::string sStream(int nFrames) {
    std::string sAll;
    for (int i = 0; i < nFrames; ++i) {
        sAll += sLargest(static_cast<char>('a' + i % 26));
    }
    return sAll;
}

/// Dequeues all complete frames and returns their bytes.
std::string sTakeFrames(RelayMessageSocket& rSocket) {
    std::string sAll;
    while (const auto image = rSocket.input().dequeueView()) {
        sAll.append(image->data() - 1, image->size() + 1);
    }
    return sAll;
}

class PlainBurst : public testing::Test {
  protected:
    SocketPair pair;
    RelayMessageSocket socket{pair.near.get(), sockaddr_in{}};
};

class TlsBurst : public testing::Test {
  protected:
    TlsPair tls;
    RelayMessageSocket socket{tls.pair.near.get(), sockaddr_in{}, tls.near.get()};
};

}  // namespace

TEST_F(PlainBurst, ALargeReadTakesOneCall) {
    const std::string sAll = sStream(128);  // 65280 bytes
    writeAll(pair.far.get(), sAll);
    EXPECT_EQ(socket.nReadBurst(), static_cast<int>(sAll.size()));
    EXPECT_EQ(sTakeFrames(socket), sAll);
    EXPECT_FALSE(socket.bHasMoreInput());
}

TEST(RelayMessageSocketBurst, ReadsOnceThoughMoreWaits) {
    // A seqpacket socket hands out one packet per read, which makes the reads countable.
    std::array<int, 2> fds{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds.data()), 0);
    const Fd near(fds[0]);
    const Fd far(fds[1]);
    makeNonBlockingForTest(near.get());
    writeAll(far.get(), "one");
    writeAll(far.get(), "seven");
    RelayMessageSocket socket(near.get(), sockaddr_in{});
    EXPECT_EQ(socket.nReadBurst(), 3);
    EXPECT_EQ(socket.nReadBurst(), 5);
    EXPECT_EQ(socket.input().size(), 8);
}

TEST_F(PlainBurst, TakesABlockAndLeavesTheRest) {
    const std::string sAll = sStream(150);
    writeAll(pair.far.get(), sAll);
    EXPECT_EQ(socket.nReadBurst(), InputBuffer::kBlockSize);
    EXPECT_TRUE(socket.bHasMoreInput());
    std::string sTaken = sTakeFrames(socket);
    EXPECT_EQ(sTaken.size(), 128U * 510) << "a torn frame waits for its end";
    EXPECT_EQ(socket.nReadBurst(), static_cast<int>(sAll.size()) - InputBuffer::kBlockSize);
    EXPECT_EQ(sTaken + sTakeFrames(socket), sAll);
}

TEST_F(PlainBurst, AFullBufferIsNoEndOfStream) {
    writeAll(pair.far.get(), sStream(150));
    ASSERT_EQ(socket.nReadBurst(), InputBuffer::kBlockSize);
    EXPECT_EQ(socket.nReadBurst(), 0);
    EXPECT_EQ(socket.nReadNonBlockingSocket(), 0);
    EXPECT_EQ(socket.nReadSocket(true), 0);
    EXPECT_EQ(socket.getErrorString(), "");
    EXPECT_EQ(socket.input().size(), InputBuffer::kBlockSize);
}

TEST_F(PlainBurst, WithNothingWaitingItReadsNothing) {
    EXPECT_EQ(socket.nReadBurst(), 0);
    EXPECT_EQ(socket.getErrorString(), "");
}

TEST_F(PlainBurst, TheEndOfTheStreamComesAfterWhatWasSentBefore) {
    writeAll(pair.far.get(), sStream(2));
    pair.far.closeNow();
    EXPECT_EQ(socket.nReadBurst(), 1020);
    EXPECT_EQ(socket.getErrorString(), "");
    EXPECT_EQ(socket.nReadBurst(), -1);
    EXPECT_EQ(socket.getErrorString(), "read returned EOF");
    EXPECT_EQ(sTakeFrames(socket), sStream(2));
}

TEST_F(PlainBurst, AnErrorIsReportedWithItsNumber) {
    pair.near.closeNow();
    EXPECT_EQ(socket.nReadBurst(), -1);
    EXPECT_EQ(socket.getErrorString(), "read returned error code " + std::to_string(EBADF));
}

TEST_F(PlainBurst, TheSmallReadAfterItKeepsToItsOwnLimit) {
    writeAll(pair.far.get(), sStream(20));
    ASSERT_EQ(socket.nReadBurst(), 20 * 510);
    writeAll(pair.far.get(), sStream(20));
    EXPECT_EQ(socket.nReadNonBlockingSocket(), 0) << "more than it may hold is held already";
    EXPECT_EQ(sTakeFrames(socket), sStream(20));
    EXPECT_EQ(socket.nReadNonBlockingSocket(), RelayMessageSocket::kReadBufferSize);
}

TEST_F(PlainBurst, ACopyCarriesAllThatWasRead) {
    writeAll(pair.far.get(), sStream(100));
    ASSERT_EQ(socket.nReadBurst(), 51000);
    RelayMessageSocket copy(socket);
    EXPECT_EQ(sTakeFrames(copy), sStream(100));
    EXPECT_EQ(sTakeFrames(socket), sStream(100));
}

TEST_F(TlsBurst, AWholeRecordTakesOneCall) {
    tls.farWrites(sStream(32));  // 16320 bytes: one record
    EXPECT_EQ(socket.nReadBurst(), 32 * 510);
    EXPECT_EQ(sTakeFrames(socket), sStream(32));
    EXPECT_FALSE(socket.bHasMoreInput()) << "nor does the session hold anything back";
}

TEST_F(TlsBurst, WhatAnEarlierReadLeftInTheSessionIsDrained) {
    tls.farWrites(sStream(32));
    ASSERT_EQ(socket.nReadNonBlockingSocket(), RelayMessageSocket::kReadBufferSize);
    std::string sTaken = sTakeFrames(socket);
    EXPECT_EQ(socket.nReadBurst(), 32 * 510 - RelayMessageSocket::kReadBufferSize);
    sTaken += sTakeFrames(socket);
    EXPECT_EQ(sTaken, sStream(32));
    EXPECT_FALSE(socket.bHasMoreInput());
}

TEST_F(TlsBurst, ARecordThatFitsOnlyInPartLeavesInputThatNoEventAnnounces) {
    for (int i = 0; i < 5; ++i) {
        tls.farWrites(sStream(26));  // 13260 bytes
    }
    int nHeld = 0;
    while (const int nRead = socket.nReadBurst()) {
        ASSERT_GT(nRead, 0);
        nHeld += nRead;
    }
    EXPECT_EQ(nHeld, InputBuffer::kBlockSize) << "it is full";
    std::string sTaken = sTakeFrames(socket);
    EXPECT_FALSE(socket.input().bFrameWaits());
    EXPECT_TRUE(socket.bHasMoreInput()) << "the session has it";
    EXPECT_GT(socket.nReadBurst(), 0);
    sTaken += sTakeFrames(socket);
    const std::string sOne = sStream(26);
    EXPECT_EQ(sTaken, sOne + sOne + sOne + sOne + sOne);
    EXPECT_FALSE(socket.bHasMoreInput());
}

TEST_F(TlsBurst, WholeRecordsWithoutRoomAreInputThatNoEventAnnounces) {
    const std::string sRecord = sSmall('a') + sSmall('b');
    constexpr int kFit = InputBuffer::kBlockSize / 512;
    int nHeld = 0;
    for (int i = 0; i < kFit + 2; ++i) {
        tls.farWrites(sRecord);
        if (i == 20) {
            nHeld = socket.nReadBurst();  // so that reading ahead does not end where the room does
        }
    }
    while (nHeld < InputBuffer::kBlockSize) {
        nHeld += socket.nReadBurst();
        ASSERT_EQ(nHeld % 512, 0) << "a part of a record would be announced anyway";
    }
    EXPECT_EQ(sTakeFrames(socket).size(), InputBuffer::kBlockSize);
    EXPECT_TRUE(socket.bHasMoreInput());
    EXPECT_EQ(socket.nReadBurst(), 2 * 512);
    EXPECT_EQ(sTakeFrames(socket), sRecord + sRecord);
    EXPECT_FALSE(socket.bHasMoreInput());
}

TEST_F(TlsBurst, SmallRecordsThatCameTogetherAreReadTogether) {
    for (int i = 0; i < 20; ++i) {
        tls.farWrites(sStream(20).substr(static_cast<std::size_t>(i) * 510, 510));
    }
    EXPECT_EQ(socket.nReadBurst(), 20 * 510);
    EXPECT_EQ(sTakeFrames(socket), sStream(20));
    EXPECT_FALSE(socket.bHasMoreInput());
}

TEST_F(TlsBurst, TinyRecordsDoNotBlockTheLoop) {
    constexpr int kMore = 10;  // a socket pair does not hold many more
    for (int i = 0; i < RelayMessageSocket::kBurstReadsMax + kMore; ++i) {
        tls.farWrites("\x01x");  // a frame of two bytes
    }
    EXPECT_EQ(socket.nReadBurst(), 2 * RelayMessageSocket::kBurstReadsMax);
    (void)sTakeFrames(socket);
    EXPECT_TRUE(socket.bHasMoreInput()) << "no event announces the rest";
    EXPECT_EQ(socket.nReadBurst(), 2 * kMore);
    (void)sTakeFrames(socket);
    EXPECT_FALSE(socket.bHasMoreInput());
}

TEST_F(TlsBurst, ThePartOfARecordAfterAWholeOneIsNoReasonToComeBack) {
    tls.farWrites(sStream(1));
    writeAll(tls.pair.far.get(), "\x17\x03\x03\x01"s);
    EXPECT_EQ(socket.nReadBurst(), 510);
    EXPECT_EQ(sTakeFrames(socket), sStream(1));
    EXPECT_FALSE(socket.bHasMoreInput()) << "the loop would spin until the rest comes";
}

TEST_F(TlsBurst, AnEndAfterARecordIsSeenByTheNextRead) {
    tls.farWrites(sStream(1));
    tls.pair.far.closeNow();
    EXPECT_EQ(socket.nReadBurst(), 510);
    EXPECT_EQ(socket.nReadBurst(), -1);
    EXPECT_EQ(sTakeFrames(socket), sStream(1));
}

TEST_F(TlsBurst, WithNothingOrHalfARecordWaitingItReadsNothing) {
    EXPECT_EQ(socket.nReadBurst(), 0);
    writeAll(tls.pair.far.get(), "\x17\x03\x03\x01"s);  // the beginning of a record
    EXPECT_EQ(socket.nReadBurst(), 0);
    EXPECT_EQ(socket.getErrorString(), "");
}

TEST_F(TlsBurst, ACloseNotificationIsTheEndOfTheStream) {
    tls.farWrites(sStream(1));
    SSL_shutdown(tls.far.get());
    EXPECT_EQ(socket.nReadBurst(), -1) << "it came with the record";
    EXPECT_EQ(socket.getErrorString(), "SSL read returned EOF");
    EXPECT_EQ(sTakeFrames(socket), sStream(1));
}

TEST_F(TlsBurst, GarbageIsALibraryError) {
    writeAll(tls.pair.far.get(), std::string(100, 'g'));
    EXPECT_EQ(socket.nReadBurst(), -1);
    EXPECT_EQ(socket.getErrorString(), "SSL lib error");
}

TEST_F(PlainBurst, AWriteReportsWhatItWroteHoweverItEnded) {
    constexpr int kMillis = 1000;
    const std::string sBig(10'000'000, 'x');
    const int nBig = static_cast<int>(sBig.size());
    const int fd = pair.near.get();
    EXPECT_EQ(socket.nLastWritten(), 0);
    EXPECT_EQ(socket.write_n_with_timeout(fd, "hello", 5, 0, kMillis), 5);
    EXPECT_EQ(socket.nLastWritten(), 5);
    testing::internal::CaptureStdout();
    const int nPart = socket.write_n_with_timeout(fd, sBig.data(), nBig, 0, kMillis);
    EXPECT_EQ(socket.nLastWritten(), nPart);
    EXPECT_GT(nPart, 0);
    EXPECT_EQ(socket.write_n_with_timeout(fd, "x", 1, 0, kMillis), 0);
    EXPECT_EQ(socket.nLastWritten(), 0) << "of the last one only";
    EXPECT_EQ(sReadWaiting(pair.far.get()).size(), static_cast<std::size_t>(nPart) + 5);
    // It fills the buffer and waits for room, which comes when the reader has shut down.
    std::thread reader([this] {
        pollfd pfd{pair.far.get(), POLLIN, 0};
        poll(&pfd, 1, 10'000);
        shutdown(pair.far.get(), SHUT_RD);
        (void)sReadWaiting(pair.far.get());
    });
    EXPECT_EQ(socket.write_n_with_timeout(fd, sBig.data(), nBig, 10, 0), -1);
    reader.join();
    testing::internal::GetCapturedStdout();
    EXPECT_GT(socket.nLastWritten(), 0);
    EXPECT_LT(socket.nLastWritten(), nBig);
}

TEST_F(TlsBurst, AWriteReportsWholeRecords) {
    const std::string sBig(10'000'000, 'x');
    testing::internal::CaptureStdout();
    const int nPart = socket.write_n_with_timeout(tls.pair.near.get(), sBig.data(),
                                                  static_cast<int>(sBig.size()), 0, 1000);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(socket.nLastWritten(), nPart);
    EXPECT_GT(nPart, 0);
    EXPECT_EQ(socket.nLastWritten() % 16384, 0);
}
