#include "orvex/misc_utils.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>

#include <array>
#include <chrono>
#include <future>
#include <string>

#include "tests/unit/orvex/socket_fixtures.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// A listener on loopback and sockets to reach it with.
class TcpTest : public testing::Test {
  protected:
    TcpTest() : listener(socket(AF_INET, SOCK_STREAM, 0)), client(socket(AF_INET, SOCK_STREAM, 0)) {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(listener.get(), pAddress(), sizeof(address)), 0);
        socklen_t nLen = sizeof(address);
        EXPECT_EQ(getsockname(listener.get(), pAddress(), &nLen), 0);
    }
    sockaddr* pAddress() { return reinterpret_cast<sockaddr*>(&address); }

    sockaddr_in address{};
    Fd listener;
    Fd client;
};

}  // namespace

TEST(UtilWriteN, WritesAllBytesOfMoreThanTheBufferHolds) {
    SocketPair pair;  // non-blocking, so that the busy retry is taken
    const std::string sBig(3'000'000, 'x');
    auto reader = std::async(std::launch::async, [&pair, nLen = sBig.size()] {
        std::string sGot(nLen, '\0');
        const int nGot = util_read_n(pair.far.get(), sGot.data(), static_cast<int>(nLen));
        return nGot == static_cast<int>(nLen) ? sGot : std::string();
    });
    EXPECT_EQ(util_write_n(pair.near.get(), sBig.data(), static_cast<int>(sBig.size())),
              static_cast<int>(sBig.size()));
    EXPECT_EQ(reader.get(), sBig);
}

TEST(UtilWriteN, FailsOnABrokenConnection) {
    SocketPair pair;
    pair.far.closeNow();
    EXPECT_EQ(util_write_n(pair.near.get(), "x", 1), -1);
    EXPECT_EQ(util_write_n(-1, "x", 1), -1);
}

TEST(UtilWriteN, WritesToAPipe) {
    Pipe pipe;
    EXPECT_EQ(util_write_n(pipe.in.get(), "abc", 3), 3);
    std::array<char, 3> ach{};
    EXPECT_EQ(util_read_n(pipe.out.get(), ach.data(), 3), 3);
    pipe.out.closeNow();
    EXPECT_EQ(util_write_n(pipe.in.get(), "abc", 3), -1) << "and raises no signal";
}

TEST(UtilReadN, StopsShortAtTheEndOfTheStream) {
    SocketPair pair;
    writeAll(pair.far.get(), "abc");
    pair.far.closeNow();
    std::array<char, 10> ach{};
    EXPECT_EQ(util_read_n(pair.near.get(), ach.data(), 10), 3);
    EXPECT_EQ(util_read_n(pair.near.get(), ach.data(), 10), 0);
    EXPECT_EQ(util_read_n(-1, ach.data(), 10), -1);
}

TEST(UtilReadN, TakesNoMoreThanAsked) {
    SocketPair pair;
    writeAll(pair.far.get(), "abcdef");
    std::array<char, 3> ach{};
    EXPECT_EQ(util_read_n(pair.near.get(), ach.data(), 3), 3);
    EXPECT_EQ(sReadWaiting(pair.near.get()), "def");
}

// How a timed write proceeds and fails is the subject of timed_write_test.cpp.

TEST(WriteWithTimeOut, WritesAtOnceWhereThereIsRoom) {
    SocketPair pair;
    EXPECT_EQ(write_n_with_timeout(pair.near.get(), "hello", 5, 0, 0), 5);
    EXPECT_EQ(write_n_with_timeout(pair.near.get(), "", 0, 0, 0), 0);
    EXPECT_EQ(sReadWaiting(pair.far.get()), "hello");
}

TEST(WriteWithTimeOut, WaitsForRoomNoLongerThanItsTimeOut) {
    SocketPair pair;
    nFillUp(pair.near.get());
    const auto tStart = Clock::now();
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_n_with_timeout(pair.near.get(), "x", 1, 0, 50'000), 0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "orvex write msg to TCP buffer timed out\n");
    EXPECT_GE(Clock::now() - tStart, 49ms);
    EXPECT_LT(Clock::now() - tStart, 5s);
}

TEST(WriteWithTimeOut, PrintsWhyADescriptorCannotBeWaitedFor) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(write_n_with_timeout(-1, "hello", 5, 0, 1000), -1);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "orvex write_n_with_timeout_ssl, epoll_ctl returning error - strerror=Bad file "
              "descriptor\n");
}

TEST(WriteWithTimeOut, WritesThroughATlsSession) {
    TlsPair tls;
    EXPECT_EQ(write_n_with_timeout_ssl(tls.pair.near.get(), "hello", 5, 0, 1000, tls.near.get()),
              5);
    EXPECT_EQ(tls.sFarReads(), "hello");
}

TEST(WriteWithTimeOut, DoesNotBlockOnABlockingTlsDescriptorAndKeepsItsFlags) {
    TlsPair tls;
    const int fd = tls.pair.near.get();
    const std::string sBig(5'000'000, 'x');
    ASSERT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK), 0);
    testing::internal::CaptureStdout();
    const int nWritten = write_n_with_timeout_ssl(fd, sBig.data(), static_cast<int>(sBig.size()), 0,
                                                  1000, tls.near.get());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "orvex write msg to TCP buffer timed out\n");
    EXPECT_GT(nWritten, 0);
    EXPECT_LT(nWritten, 5'000'000);
    EXPECT_FALSE(bIsNonBlockingForTest(fd));
}

TEST_F(TcpTest, ConnectsToAListenerAndKeepsTheFlags) {
    ASSERT_EQ(listen(listener.get(), 5), 0);
    EXPECT_EQ(connect_with_timeout(client.get(), pAddress(), 2, 0), 0);
    EXPECT_FALSE(bIsNonBlockingForTest(client.get()));
    const Fd other(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    EXPECT_EQ(connect_with_timeout(other.get(), pAddress(), 2, 0), 0);
    EXPECT_TRUE(bIsNonBlockingForTest(other.get()));
}

TEST_F(TcpTest, ARefusedConnectionFailsAtOnceOrAtItsFirstUse) {
    listener.closeNow();
    const auto tStart = Clock::now();
    if (connect_with_timeout(client.get(), pAddress(), 5, 0) == 0) {
        EXPECT_EQ(util_write_n(client.get(), "x", 1), -1);
    }
    EXPECT_LT(Clock::now() - tStart, 4s);
}

/// A listener with a full backlog does not answer, so that a connect to it has to wait.
class FullBacklogTest : public TcpTest {
  protected:
    FullBacklogTest() : filler(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0)) {
        EXPECT_EQ(listen(listener.get(), 0), 0);
        EXPECT_EQ(connect_with_timeout(filler.get(), pAddress(), 2, 0), 0);
    }
    Fd filler;
};

TEST_F(FullBacklogTest, ConnectingWaitsNoLongerThanItsTimeOut) {
    const auto tStart = Clock::now();
    EXPECT_EQ(connect_with_timeout(client.get(), pAddress(), 0, 100'000), -1);
    EXPECT_GE(Clock::now() - tStart, 99ms);
    EXPECT_LT(Clock::now() - tStart, 5s);
    EXPECT_FALSE(bIsNonBlockingForTest(client.get()));
}

TEST_F(FullBacklogTest, ConnectingWithLessThanAMillisecondDoesNotWait) {
    const auto tStart = Clock::now();
    EXPECT_EQ(connect_with_timeout(client.get(), pAddress(), 0, 999), -1);
    EXPECT_LT(Clock::now() - tStart, 1s);
}

TEST_F(TcpTest, ConnectingWithABadDescriptorFails) {
    EXPECT_EQ(connect_with_timeout(-1, pAddress(), 1, 0), -1);
}

TEST_F(TcpTest, AcceptingDoesNotWaitForAConnection) {
    ASSERT_EQ(listen(listener.get(), 5), 0);
    sockaddr_in peer{};
    EXPECT_EQ(accept_nonblock(listener.get(), reinterpret_cast<sockaddr*>(&peer)), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(bIsNonBlockingForTest(listener.get()));
}

TEST_F(TcpTest, AcceptsAWaitingConnectionWithItsAddress) {
    ASSERT_EQ(listen(listener.get(), 5), 0);
    ASSERT_EQ(connect_with_timeout(client.get(), pAddress(), 2, 0), 0);
    sockaddr_in peer{};
    const Fd accepted(accept_nonblock(listener.get(), reinterpret_cast<sockaddr*>(&peer)));
    ASSERT_GT(accepted.get(), 0);
    sockaddr_in own{};
    socklen_t nLen = sizeof(own);
    ASSERT_EQ(getsockname(client.get(), reinterpret_cast<sockaddr*>(&own), &nLen), 0);
    EXPECT_EQ(peer.sin_port, own.sin_port);
    EXPECT_EQ(peer.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    EXPECT_FALSE(bIsNonBlockingForTest(listener.get()));
}

TEST_F(TcpTest, ANonBlockingListenerStaysSo) {
    ASSERT_EQ(listen(listener.get(), 5), 0);
    makeNonBlockingForTest(listener.get());
    sockaddr_in peer{};
    EXPECT_EQ(accept_nonblock(listener.get(), reinterpret_cast<sockaddr*>(&peer)), -1);
    EXPECT_TRUE(bIsNonBlockingForTest(listener.get()));
}

TEST(AcceptNonblock, FailsOnABadDescriptor) {
    sockaddr_in peer{};
    EXPECT_EQ(accept_nonblock(-1, reinterpret_cast<sockaddr*>(&peer)), -1);
}
