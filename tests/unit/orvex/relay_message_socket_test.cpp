#include "orvex/relay_message_socket.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <openssl/err.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "tests/unit/orvex/socket_fixtures.h"

using Orvex::RelayMessageSocket;
using namespace std::string_literals;

namespace {

constexpr int kMillis = 1000;  // microseconds, as the writers take them

/// A frame whose image has `2 * nCode - 1` bytes of `ch`.
std::string sFrame(int nCode, char ch) {
    return std::string(1, static_cast<char>(nCode)) +
           std::string(static_cast<std::size_t>(2 * nCode - 1), ch);
}

struct Dequeued {
    bool bOK = false;
    std::string sImage;
};

Dequeued dequeue(RelayMessageSocket& socket) {
    std::array<char, RelayMessageSocket::kMaxFrameImage> ach{};
    int nLen = -1;
    Dequeued result;
    result.bOK = socket.bDequeueNetMessage(ach.data(), &nLen);
    if (result.bOK) {
        result.sImage.assign(ach.data(), static_cast<std::size_t>(nLen));
    } else {
        EXPECT_EQ(nLen, -1) << "the length is stored on success only";
    }
    return result;
}

class PlainSocketTest : public testing::Test {
  protected:
    /// Lets the socket read `sBytes` whole.
    void feed(const std::string& sBytes) {
        writeAll(pair.far.get(), sBytes);
        ASSERT_EQ(socket.nReadNonBlockingSocket(), static_cast<int>(sBytes.size()));
    }
    int nWrite(const std::string& sBytes, int nMillis) {
        return socket.write_n_with_timeout(pair.near.get(), sBytes.data(),
                                           static_cast<int>(sBytes.size()), 0, nMillis * kMillis);
    }
    SocketPair pair;
    RelayMessageSocket socket{pair.near.get(), sockaddr_in{}};
};

class TlsSocketTest : public testing::Test {
  protected:
    int nWrite(const std::string& sBytes, int nMillis) {
        return socket.write_n_with_timeout(tls.pair.near.get(), sBytes.data(),
                                           static_cast<int>(sBytes.size()), 0, nMillis * kMillis);
    }
    TlsPair tls;
    RelayMessageSocket socket{tls.pair.near.get(), sockaddr_in{}, tls.near.get()};
};

}  // namespace

TEST(RelayMessageSocket, IsNoConnectionAtFirst) {
    RelayMessageSocket socket;
    EXPECT_EQ(socket.getMsgSockFileDesc(), -1);
    EXPECT_FALSE(socket.bUseSSL());
    EXPECT_EQ(socket.getSSLPtr(), nullptr);
    EXPECT_EQ(socket.getErrorString(), "");
    sockaddr_in address;
    std::memset(&address, 0xFF, sizeof(address));
    socket.GetAddress(address);
    const sockaddr_in zero{};
    EXPECT_EQ(std::memcmp(&address, &zero, sizeof(zero)), 0);
    EXPECT_FALSE(dequeue(socket).bOK);
    EXPECT_FALSE(socket.bHasMoreInput());
}

TEST_F(PlainSocketTest, AFrameOfCodeFiveNeedsNineMoreBytes) {
    feed("\x05"s + std::string(8, 'a'));
    EXPECT_FALSE(socket.bHasMoreInput());
    EXPECT_FALSE(dequeue(socket).bOK);
    feed("b");
    EXPECT_TRUE(socket.bHasMoreInput());
    const auto got = dequeue(socket);
    EXPECT_TRUE(got.bOK);
    EXPECT_EQ(got.sImage, "aaaaaaaab");
    EXPECT_FALSE(dequeue(socket).bOK);
    EXPECT_FALSE(socket.bHasMoreInput());
}

TEST_F(PlainSocketTest, AZeroByteAtTheHeadEmptiesTheBuffer) {
    feed("\0"s + sFrame(5, 'a'));
    EXPECT_TRUE(socket.bHasMoreInput()) << "or it would never be discarded";
    EXPECT_FALSE(dequeue(socket).bOK);
    EXPECT_FALSE(socket.bHasMoreInput());
    feed(sFrame(1, 'b'));
    EXPECT_EQ(dequeue(socket).sImage, "b");
}

TEST_F(PlainSocketTest, AZeroByteBehindAFrameLeavesTheFrame) {
    feed(sFrame(2, 'a') + "\0"s + sFrame(2, 'b'));
    EXPECT_EQ(dequeue(socket).sImage, "aaa");
    EXPECT_FALSE(dequeue(socket).bOK);
    EXPECT_FALSE(dequeue(socket).bOK);
}

TEST_F(PlainSocketTest, TwoFramesOfOneReadAreDequeuedInOrder) {
    feed(sFrame(5, 'a') + sFrame(6, 'b') + "\x04");
    EXPECT_EQ(dequeue(socket).sImage, std::string(9, 'a'));
    EXPECT_EQ(dequeue(socket).sImage, std::string(11, 'b'));
    EXPECT_FALSE(dequeue(socket).bOK);
    feed(std::string(7, 'c'));
    EXPECT_EQ(dequeue(socket).sImage, std::string(7, 'c'));
}

TEST_F(PlainSocketTest, TheLargestFrameHas509Bytes) {
    feed(sFrame(255, 'x'));
    EXPECT_EQ(dequeue(socket).sImage, std::string(509, 'x'));
}

TEST_F(PlainSocketTest, ViewsStayValidUntilTheNextRead) {
    feed(sFrame(2, 'a') + sFrame(3, 'b'));
    const auto first = socket.input().dequeueView();
    const auto second = socket.input().dequeueView();
    ASSERT_TRUE(first && second);
    EXPECT_EQ(*first, "aaa");
    EXPECT_EQ(*second, "bbbbb");
    EXPECT_FALSE(socket.input().dequeueView());
}

TEST_F(PlainSocketTest, CopiesCarryTheUnreadBytes) {
    feed(sFrame(2, 'a') + sFrame(3, 'b') + "\x02");
    (void)dequeue(socket);
    RelayMessageSocket copy(socket);
    RelayMessageSocket assigned;
    assigned = copy;
    for (RelayMessageSocket* p : {&copy, &assigned}) {
        EXPECT_EQ(p->getMsgSockFileDesc(), pair.near.get());
        EXPECT_EQ(dequeue(*p).sImage, "bbbbb");
        EXPECT_FALSE(p->bHasMoreInput());
    }
    feed("ccc");
    EXPECT_EQ(dequeue(socket).sImage, "bbbbb") << "and the copied one keeps its own";
}

TEST_F(PlainSocketTest, DrainingWithNothingWaitingReadsNothing) {
    EXPECT_EQ(socket.nReadNonBlockingSocket(), 0);
    EXPECT_EQ(socket.getErrorString(), "");
}

TEST_F(PlainSocketTest, DrainingReportsTheEndOfTheStream) {
    pair.far.closeNow();
    EXPECT_EQ(socket.nReadNonBlockingSocket(), -1);
    EXPECT_EQ(socket.getErrorString(), "read returned EOF");
}

TEST_F(PlainSocketTest, FramesAheadOfTheEndOfTheStreamAreKept) {
    writeAll(pair.far.get(), sFrame(5, 'a'));
    pair.far.closeNow();
    EXPECT_EQ(socket.nReadNonBlockingSocket(), -1);
    EXPECT_EQ(dequeue(socket).sImage, std::string(9, 'a'));
}

TEST_F(PlainSocketTest, DrainingReportsAnErrorWithItsNumber) {
    pair.near.closeNow();
    EXPECT_EQ(socket.nReadNonBlockingSocket(), -1);
    EXPECT_EQ(socket.getErrorString(), "read returned error code " + std::to_string(EBADF));
}

TEST_F(PlainSocketTest, AFullBufferIsNoEndOfStream) {
    const std::string sStream = sFrame(255, 'a') + sFrame(255, 'b');
    std::string sAll;
    for (int i = 0; i < 6; ++i) {
        sAll += sStream;
    }
    writeAll(pair.far.get(), sAll);
    ASSERT_EQ(socket.nReadNonBlockingSocket(), RelayMessageSocket::kReadBufferSize);
    EXPECT_EQ(socket.nReadNonBlockingSocket(), 0);
    EXPECT_EQ(socket.nReadSocket(true), 0);
    EXPECT_EQ(socket.getErrorString(), "");
    EXPECT_TRUE(socket.bHasMoreInput());
    for (int i = 0; i < 12; ++i) {
        if (i == 9) {
            EXPECT_GT(socket.nReadNonBlockingSocket(), 0);
        }
        EXPECT_EQ(dequeue(socket).sImage, std::string(509, i % 2 == 0 ? 'a' : 'b')) << i;
    }
}

TEST(RelayMessageSocketDrain, StopsAfter1024Bytes) {
    // A seqpacket socket hands out one packet per read, which makes the reads countable.
    std::array<int, 2> fds{};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_SEQPACKET, 0, fds.data()), 0);
    const Fd near(fds[0]);
    const Fd far(fds[1]);
    makeNonBlockingForTest(near.get());
    for (const std::size_t nPacket : {600U, 423U, 700U, 1U}) {
        writeAll(far.get(), std::string(nPacket, 'p'));
    }
    RelayMessageSocket socket(near.get(), sockaddr_in{});
    EXPECT_EQ(socket.nReadNonBlockingSocket(), 600 + 423 + 700) << "1023 bytes go on";
    EXPECT_EQ(socket.nReadNonBlockingSocket(), 1);
    for (const std::size_t nPacket : {1024U, 1U}) {
        writeAll(far.get(), std::string(nPacket, 'p'));
    }
    EXPECT_EQ(socket.nReadNonBlockingSocket(), 1024) << "1024 bytes stop";
}

TEST_F(PlainSocketTest, TheReadinessCheckSeesDataAndTheEnd) {
    EXPECT_FALSE(socket.bCheckSocket());
    writeAll(pair.far.get(), "a");
    EXPECT_TRUE(socket.bCheckSocket());
    EXPECT_EQ(socket.nReadSocket(false), 1);
    EXPECT_FALSE(socket.bCheckSocket());
    pair.far.closeNow();
    EXPECT_TRUE(socket.bCheckSocket());
}

TEST_F(PlainSocketTest, TheReadinessCheckWorksForDescriptorsOf1024AndMore) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const Fd high(fcntl(pair.near.get(), F_DUPFD, 1500));
    ASSERT_GE(high.get(), 1500) << "the hard limit of descriptors is too low for this test";
    RelayMessageSocket highSocket(high.get(), sockaddr_in{});
    EXPECT_FALSE(highSocket.bCheckSocket());
    writeAll(pair.far.get(), "a");
    EXPECT_TRUE(highSocket.bCheckSocket());
}

TEST_F(PlainSocketTest, TheReadinessCheckOfABadDescriptorFails) {
    RelayMessageSocket none;
    EXPECT_FALSE(none.bCheckSocket());
    EXPECT_EQ(none.getErrorString(), "select failed with code -1");
    pair.near.closeNow();
    EXPECT_FALSE(socket.bCheckSocket());
    EXPECT_EQ(socket.getErrorString(), "select failed with code -1");
}

TEST_F(PlainSocketTest, ASingleReadReturnsWhatReadReturns) {
    EXPECT_EQ(socket.nReadSocket(false), 0) << "nothing waits";
    EXPECT_EQ(socket.nReadSocket(true), -1) << "the unchecked read of a non-blocking socket";
    EXPECT_EQ(socket.getErrorString(), "");
    writeAll(pair.far.get(), sFrame(2, 'a'));
    EXPECT_EQ(socket.nReadSocket(false), 4);
    EXPECT_EQ(dequeue(socket).sImage, "aaa");
    pair.far.closeNow();
    EXPECT_EQ(socket.nReadSocket(true), 0);
    EXPECT_EQ(socket.getErrorString(), "");
}

TEST_F(PlainSocketTest, WritesAtOnceWhereThereIsRoom) {
    EXPECT_EQ(nWrite("hello", 0), 5);
    EXPECT_EQ(sReadWaiting(pair.far.get()), "hello");
}

TEST_F(PlainSocketTest, WritesNothingWhenNothingIsAsked) {
    EXPECT_EQ(nWrite("", 0), 0);
}

TEST_F(PlainSocketTest, ATimeOutMidWriteReturnsWhatWasWritten) {
    const std::string sBig(10'000'000, 'x');
    testing::internal::CaptureStdout();
    const int nWritten = nWrite(sBig, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "orvex write msg to TCP buffer timed out\n");
    EXPECT_GT(nWritten, 0);
    EXPECT_EQ(sReadWaiting(pair.far.get()).size(), static_cast<std::size_t>(nWritten));
}

TEST_F(PlainSocketTest, ABrokenConnectionFailsWithItsReason) {
    pair.far.closeNow();
    testing::internal::CaptureStdout();
    EXPECT_EQ(nWrite("hello", 1), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "orvex msg write - errno = Broken pipe\n"
              "orvex write msg returning error - strerror=Broken pipe\n");
}

TEST_F(PlainSocketTest, ABlockingDescriptorKeepsItsFlags) {
    RelayMessageSocket blocking(pair.far.get(), sockaddr_in{});
    nFillUp(pair.far.get());
    testing::internal::CaptureStdout();
    EXPECT_EQ(blocking.write_n_with_timeout(pair.far.get(), "x", 1, 0, kMillis), 0);
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(bIsNonBlockingForTest(pair.far.get()));
}

TEST_F(PlainSocketTest, AWriteToABadDescriptorTimesOut) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(socket.write_n_with_timeout(-1, "x", 1, 0, kMillis), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "orvex write msg to TCP buffer timed out\n");
}

TEST_F(TlsSocketTest, CarriesFramesBothWays) {
    EXPECT_TRUE(socket.bUseSSL());
    EXPECT_EQ(socket.getSSLPtr(), tls.near.get());
    tls.farWrites(sFrame(5, 'a'));
    EXPECT_EQ(socket.nReadNonBlockingSocket(), 10);
    EXPECT_EQ(dequeue(socket).sImage, std::string(9, 'a'));
    EXPECT_EQ(nWrite("hello", 1), 5);
    EXPECT_EQ(tls.sFarReads(), "hello");
}

TEST_F(TlsSocketTest, DrainingWithNothingWaitingReadsNothing) {
    EXPECT_EQ(socket.nReadNonBlockingSocket(), 0);
    EXPECT_EQ(socket.getErrorString(), "");
}

TEST_F(TlsSocketTest, ALargeRecordLeavesInputThatNoEventAnnounces) {
    std::string sAll;
    for (int i = 0; i < 24; ++i) {
        sAll += sFrame(255, static_cast<char>('a' + i));
    }
    tls.farWrites(sAll);  // one record of 12240 bytes, more than the buffer holds
    int nGot = 0;
    for (int nPass = 0; nPass < 30 && nGot < 24; ++nPass) {
        ASSERT_GE(socket.nReadNonBlockingSocket(), 0);
        ASSERT_TRUE(socket.bHasMoreInput());
        for (auto got = dequeue(socket); got.bOK; got = dequeue(socket)) {
            EXPECT_EQ(got.sImage, std::string(509, static_cast<char>('a' + nGot)));
            ++nGot;
        }
        EXPECT_EQ(socket.bHasMoreInput(), nGot < 24) << "what the session still holds counts";
    }
    EXPECT_EQ(nGot, 24);
    EXPECT_FALSE(socket.bHasMoreInput());
}

TEST_F(TlsSocketTest, ACloseNotificationIsTheEndOfTheStream) {
    tls.farWrites(sFrame(2, 'a'));
    SSL_shutdown(tls.far.get());
    EXPECT_EQ(socket.nReadNonBlockingSocket(), -1);
    EXPECT_EQ(socket.getErrorString(), "SSL read returned EOF");
    EXPECT_EQ(dequeue(socket).sImage, "aaa");
}

TEST_F(TlsSocketTest, AnEndWithoutNotificationEndsTheStreamToo) {
    tls.pair.far.closeNow();
    EXPECT_EQ(socket.nReadNonBlockingSocket(), -1);
    EXPECT_THAT((std::vector<std::string>{"SSL read returned EOF", "SSL lib error"}),
                testing::Contains(socket.getErrorString()));
}

TEST_F(TlsSocketTest, GarbageIsALibraryError) {
    writeAll(tls.pair.far.get(), std::string(100, 'g'));
    EXPECT_EQ(socket.nReadNonBlockingSocket(), -1);
    EXPECT_EQ(socket.getErrorString(), "SSL lib error");
}

TEST_F(TlsSocketTest, ATimeOutMidWriteReturnsWholeRecords) {
    const std::string sBig(10'000'000, 'x');
    testing::internal::CaptureStdout();
    const int nWritten = nWrite(sBig, 1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "orvex write msg to TCP buffer timed out\n");
    EXPECT_GT(nWritten, 0);
    EXPECT_LT(nWritten, 10'000'000);
    EXPECT_EQ(nWritten % 16384, 0) << "partial writing stops between records";
}

TEST_F(TlsSocketTest, ABrokenConnectionFailsWithTheTlsReason) {
    tls.pair.far.closeNow();
    testing::internal::CaptureStdout();
    int nResult = nWrite("hello", 1);
    const std::string sOut = testing::internal::GetCapturedStdout();
    EXPECT_EQ(nResult, -1);
    EXPECT_EQ(sOut, "orvex write msg returning error - strerror=Broken pipe\n");
    EXPECT_EQ(socket.getErrorString(), "SSL lib error on write, unrecoverable");
}

TEST_F(TlsSocketTest, AWriteThatNeedsReadingFirstFails) {
    TlsPair other;
    SslPtr<SSL> fresh(SSL_new(other.serverCtx.get()));
    SSL_set_fd(fresh.get(), tls.pair.near.get());
    SSL_set_accept_state(fresh.get());  // its handshake waits for the client
    RelayMessageSocket unready(tls.pair.near.get(), sockaddr_in{}, fresh.get());
    testing::internal::CaptureStdout();
    EXPECT_EQ(unready.write_n_with_timeout(tls.pair.near.get(), "x", 1, 0, kMillis), -1);
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(unready.getErrorString(), "SSL_ERROR_WANT_READ during SSL write, choosing close");
}

TEST_F(TlsSocketTest, NoRoomRightAfterAReadinessReportFails) {
    const UnwritableSession session;
    RelayMessageSocket full(tls.pair.near.get(), sockaddr_in{}, session.get());
    testing::internal::CaptureStdout();
    EXPECT_EQ(full.write_n_with_timeout(tls.pair.near.get(), "x", 1, 1, 0), -1);
    EXPECT_THAT(testing::internal::GetCapturedStdout(),
                testing::StartsWith("orvex write msg returning error - strerror="));
    EXPECT_EQ(full.getErrorString(), "SSL_ERROR_WANT_WRITE during SSL write, choosing close");
}

TEST_F(TlsSocketTest, AnEarlierErrorOfAnotherSessionIsNotTakenForItsOwn) {
    ERR_raise(ERR_LIB_USER, 1);
    testing::internal::CaptureStdout();
    EXPECT_GT(nWrite(std::string(10'000'000, 'x'), 1), 0) << "as much as there is room for";
    (void)testing::internal::GetCapturedStdout();
    EXPECT_EQ(socket.getErrorString(), "");
    ERR_raise(ERR_LIB_USER, 1);
    EXPECT_EQ(socket.nReadBurst(), 0);
    EXPECT_EQ(socket.getErrorString(), "");
}

TEST_F(TlsSocketTest, ABlockingDescriptorDoesNotBlockAndKeepsItsFlags) {
    const int fd = tls.pair.near.get();
    ASSERT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK), 0);
    const std::string sBig(10'000'000, 'x');
    testing::internal::CaptureStdout();
    EXPECT_LT(nWrite(sBig, 1), 10'000'000);
    testing::internal::GetCapturedStdout();
    EXPECT_FALSE(bIsNonBlockingForTest(fd));
}
