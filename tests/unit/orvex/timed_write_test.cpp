#include "orvex/timed_write.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdint>
#include <future>
#include <string>
#include <thread>

#include "orvex/misc_utils.h"
#include "tests/unit/base/waiting.h"
#include "tests/unit/orvex/socket_fixtures.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// Larger than the number of any descriptor that a test opens.
constexpr int kClosedDescriptor = 1'000'000;

const std::string kTimedOut = "orvex write msg to TCP buffer timed out\n";
const std::string kBrokenPipe =
    "orvex msg write - errno = Broken pipe\n"
    "orvex write msg returning error - strerror=Broken pipe\n";

TimedWrite jobFor(int fd, const std::string& sBytes, int nMillis, SSL* ssl = nullptr) {
    return {fd,
            reinterpret_cast<const unsigned char*>(sBytes.data()),
            static_cast<int>(sBytes.size()),
            nMillis,
            ssl,
            nullptr};
}

/// What `call` returns, and in `sPrinted_` what it prints.
class TimedWriteTest : public testing::Test {
  protected:
    template <typename Call>
    int nCaptured(Call call) {
        testing::internal::CaptureStdout();
        const int nResult = call();
        sPrinted_ = testing::internal::GetCapturedStdout();
        return nResult;
    }
    int nWrite(int fd, const std::string& sBytes, int nMillis, SSL* ssl = nullptr) {
        return nCaptured([&] { return nTimedWrite(jobFor(fd, sBytes, nMillis, ssl)); });
    }
    /// Continues a write of `sBytes` whose first attempt gave `nResult` and `nError`.
    int nFinish(const std::string& sBytes, int nResult, int nError) {
        TimedWrite job = jobFor(pair_.near.get(), sBytes, 0);
        job.pnWritten = &nWritten_;
        return nCaptured([&] {
            errno = nError;
            return nFinishWrite(job, nResult);
        });
    }

    SocketPair pair_;
    Pipe pipe_;
    const std::string sBig_ = std::string(3'000'000, 'x');
    int nWritten_ = 99;
    std::string sPrinted_;
};

/// Runs `action` once the thread that made this object waits for room at `fd`; the destructor
/// waits for it.
class DuringTheWait {
  public:
    template <typename Action>
    DuringTheWait(int fd, Action action)
        : done_(std::async(std::launch::async, [fd, action, writer = gettid()] {
              // A full descriptor whose writer sleeps: nothing but the wait for room is left.
              EXPECT_TRUE(bEventually([=] { return !bHasRoom(fd) && bIsAsleep(writer); }));
              action();
          })) {}

  private:
    static bool bHasRoom(int fd) {
        pollfd pfd{fd, POLLOUT, 0};
        return poll(&pfd, 1, 0) != 0;
    }

    std::future<void> done_;
};

}  // namespace

TEST(TimeOut, IsCountedInWholeMilliseconds) {
    EXPECT_EQ(nTimeoutMillis(2, 500'000), 2500);
    EXPECT_EQ(nTimeoutMillis(0, 999), 0);
    EXPECT_EQ(nTimeoutMillis(0, 1000), 1);
}

TEST(TimeOut, StaysWithinTheRangeOfPoll) {
    EXPECT_EQ(nTimeoutMillis(INT_MAX, 0), INT_MAX);
    EXPECT_EQ(nTimeoutMillis(INT_MAX, INT_MAX), INT_MAX);
    EXPECT_EQ(nTimeoutMillis(INT_MIN, 0), INT_MIN);
}

TEST_F(TimedWriteTest, WritesAtOnceWhereThereIsRoom) {
    EXPECT_EQ(nWrite(pair_.near.get(), "hello", 0), 5);
    EXPECT_EQ(sReadWaiting(pair_.far.get()), "hello");
    EXPECT_EQ(sPrinted_, "");
}

TEST_F(TimedWriteTest, DoesNothingWithoutBytes) {
    EXPECT_EQ(nWrite(-1, "", 1), 0);
    TimedWrite job = jobFor(-1, "", 1);
    job.nBytes = -1;
    EXPECT_EQ(nTimedWrite(job), 0);
    EXPECT_EQ(sPrinted_, "");
}

TEST_F(TimedWriteTest, WaitsForRoomNoLongerThanItsTimeOut) {
    nFillUp(pair_.near.get());
    const auto tStart = Clock::now();
    EXPECT_EQ(nWrite(pair_.near.get(), "x", 50), 0);
    EXPECT_EQ(sPrinted_, kTimedOut);
    EXPECT_GE(Clock::now() - tStart, 49ms);
    EXPECT_LT(Clock::now() - tStart, 5s);
}

TEST_F(TimedWriteTest, ReportsAFullBufferAtOnceWithATimeOutOfZero) {
    nFillUp(pair_.near.get());
    const auto tStart = Clock::now();
    EXPECT_EQ(nWrite(pair_.near.get(), "x", 0), 0);
    EXPECT_EQ(sPrinted_, kTimedOut);
    EXPECT_LT(Clock::now() - tStart, 1s);
}

TEST_F(TimedWriteTest, WritesTheRestWhenRoomComes) {
    auto reader = std::async(std::launch::async, [this] {
        std::string sGot(sBig_.size(), '\0');
        (void)util_read_n(pair_.far.get(), sGot.data(), static_cast<int>(sGot.size()));
        return sGot == sBig_;
    });
    EXPECT_EQ(nWrite(pair_.near.get(), sBig_, 10'000), static_cast<int>(sBig_.size()));
    EXPECT_EQ(sPrinted_, "");
    EXPECT_TRUE(reader.get());
}

TEST_F(TimedWriteTest, ReturnsWhatItHasWrittenAfterATimeOut) {
    const int nWritten = nWrite(pair_.near.get(), sBig_, 1);
    EXPECT_EQ(sPrinted_, kTimedOut);
    EXPECT_GT(nWritten, 0);
    EXPECT_EQ(sReadWaiting(pair_.far.get()).size(), static_cast<std::size_t>(nWritten));
}

TEST_F(TimedWriteTest, CompletesAWriteThatAnotherBegan) {
    EXPECT_EQ(nFinish("hello", 2, 0), 5);
    EXPECT_EQ(sReadWaiting(pair_.far.get()), "llo");
    EXPECT_EQ(nWritten_, 5);
    EXPECT_EQ(nFinish("hello", 5, 0), 5);
    EXPECT_EQ(sReadWaiting(pair_.far.get()), "");
    EXPECT_EQ(sPrinted_, "");
}

TEST_F(TimedWriteTest, RepeatsAnInterruptedAttempt) {
    EXPECT_EQ(nFinish("hello", -1, EINTR), 5);
    EXPECT_EQ(sReadWaiting(pair_.far.get()), "hello");
    EXPECT_EQ(sPrinted_, "");
}

TEST_F(TimedWriteTest, CountsTheBytesHoweverItEnds) {
    EXPECT_EQ(nFinish(sBig_, 3, 0), nWritten_);
    EXPECT_GT(nWritten_, 3) << "a time-out";
    pair_.far.closeNow();
    EXPECT_EQ(nFinish("hello", 3, 0), -1);
    EXPECT_EQ(nWritten_, 3) << "a failure";
    EXPECT_EQ(nFinish("hello", -1, ECONNRESET), -1);
    EXPECT_EQ(nWritten_, 0) << "and from zero each time";
}

TEST_F(TimedWriteTest, FailsOnAClosedPeerWithItsReason) {
    pair_.far.closeNow();
    EXPECT_EQ(nWrite(pair_.near.get(), "hello", 1), -1);
    EXPECT_EQ(sPrinted_, kBrokenPipe);
}

TEST_F(TimedWriteTest, FailsWhenThePeerStopsReadingDuringTheWait) {
    const DuringTheWait stop(pair_.near.get(), [fd = pair_.far.get()] {
        shutdown(fd, SHUT_RD);
        (void)sReadWaiting(fd);  // makes room, which ends the wait
    });
    EXPECT_EQ(nWrite(pair_.near.get(), sBig_, 10'000), -1);
    EXPECT_EQ(sPrinted_, kBrokenPipe);
}

TEST_F(TimedWriteTest, FailsWhenASignalInterruptsTheWait) {
    struct sigaction interrupting {};
    struct sigaction before {};
    interrupting.sa_handler = [](int) {};
    sigaction(SIGUSR1, &interrupting, &before);
    int nResult = 0;
    {
        const DuringTheWait interruption(
            pair_.near.get(), [writer = pthread_self()] { pthread_kill(writer, SIGUSR1); });
        nResult = nWrite(pair_.near.get(), sBig_, 10'000);
    }
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(nResult, -1);
    EXPECT_EQ(sPrinted_,
              "orvex write msg - epoll return code -1, error=Interrupted system call"
              "orvex write msg returning error - strerror=Interrupted system call\n");
}

TEST_F(TimedWriteTest, FailsOnADescriptorThatCannotBeWaitedFor) {
    const std::string sBad =
        "orvex write_n_with_timeout_ssl, epoll_ctl returning error - strerror=Bad file "
        "descriptor\n";
    EXPECT_EQ(nWrite(-1, "hello", 1), -1);
    EXPECT_EQ(sPrinted_, sBad);
    const auto tStart = Clock::now();
    EXPECT_EQ(nWrite(kClosedDescriptor, "hello", 10'000), -1);
    EXPECT_EQ(sPrinted_, sBad);
    EXPECT_LT(Clock::now() - tStart, 5s);
}

TEST_F(TimedWriteTest, TimesOutOnSuchADescriptorWhereErrorsAreTexts) {
    std::string sText;
    const std::string sBytes = "hello";
    TimedWrite job = jobFor(kClosedDescriptor, sBytes, 10'000);
    job.psErrorText = &sText;
    EXPECT_EQ(nCaptured([&] { return nTimedWrite(job); }), 0);
    EXPECT_EQ(sPrinted_, kTimedOut);
    EXPECT_EQ(sText, "");
}

TEST_F(TimedWriteTest, TimesOutOnAFullBlockingPipeAndLeavesItBlocking) {
    const int nCapacity = fcntl(pipe_.in.get(), F_GETPIPE_SZ);
    EXPECT_EQ(nWrite(pipe_.in.get(), sBig_, 1), nCapacity);
    EXPECT_EQ(sPrinted_, kTimedOut);
    EXPECT_FALSE(bIsNonBlockingForTest(pipe_.in.get()));
}

// A full pipe whose reader closes reports an error without room.
TEST_F(TimedWriteTest, EndsWithTheMaskOfAnEventWithoutRoom) {
    const int nCapacity = fcntl(pipe_.in.get(), F_GETPIPE_SZ);
    const DuringTheWait close(pipe_.in.get(), [this] { pipe_.out.closeNow(); });
    EXPECT_EQ(nWrite(pipe_.in.get(), sBig_, 10'000), nCapacity);
    EXPECT_EQ(sPrinted_, "unexpected epoll return 8\n");
}

// An event counter is such a descriptor: it has room, but not for a number this large.
TEST_F(TimedWriteTest, FailsWithoutRoomRightAfterAReadinessReport) {
    const Fd counter(eventfd(0, 0));
    const std::uint64_t nNearlyFull = 0xFFFFFFFFFFFFFFFD;
    ASSERT_EQ(write(counter.get(), &nNearlyFull, sizeof(nNearlyFull)), 8);
    const std::uint64_t nTooMuch = 5;
    const std::string sTooMuch(reinterpret_cast<const char*>(&nTooMuch), sizeof(nTooMuch));
    EXPECT_EQ(nWrite(counter.get(), sTooMuch, 1000), -1);
    EXPECT_EQ(sPrinted_,
              "orvex write - EAGAIN/EINTR\n"
              "orvex write msg returning error - strerror=Resource temporarily unavailable\n");
    EXPECT_FALSE(bIsNonBlockingForTest(counter.get()));
}

TEST_F(TimedWriteTest, NeedsNoDescriptorOfItsOwn) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    rlimit none = before;
    none.rlim_cur = 1;  // 0 is taken, and `poll` refuses to look at more than may be open
    const int nWritten = nCaptured([&] {
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        const int nResult = nTimedWrite(jobFor(pair_.near.get(), sBig_, 1));
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
        return nResult;
    });
    EXPECT_GT(nWritten, 0);
    EXPECT_EQ(sPrinted_, kTimedOut);
}

TEST_F(TimedWriteTest, WaitsOnDescriptorsOf1024AndMore) {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    const Fd high(fcntl(pair_.near.get(), F_DUPFD, 1500));
    ASSERT_GE(high.get(), 1500) << "the hard limit of descriptors is too low for this test";
    nFillUp(high.get());
    EXPECT_EQ(nWrite(high.get(), "x", 1), 0);
    EXPECT_EQ(sPrinted_, kTimedOut);
    const DuringTheWait drain(high.get(), [fd = pair_.far.get()] { (void)sReadWaiting(fd); });
    EXPECT_EQ(nWrite(high.get(), "hello", 10'000), 5);
    EXPECT_EQ(sPrinted_, "");
}

using TimedWriteTls = TimedWriteTest;

TEST_F(TimedWriteTls, WritesThroughTheSession) {
    TlsPair tls;
    EXPECT_EQ(nWrite(tls.pair.near.get(), "hello", 1, tls.near.get()), 5);
    EXPECT_EQ(tls.sFarReads(), "hello");
}

TEST_F(TimedWriteTls, ReturnsWholeRecordsAfterATimeOut) {
    TlsPair tls;
    const int nWritten = nWrite(tls.pair.near.get(), sBig_, 1, tls.near.get());
    EXPECT_EQ(sPrinted_, kTimedOut);
    EXPECT_GT(nWritten, 0);
    EXPECT_EQ(nWritten % 16384, 0);
}

TEST_F(TimedWriteTls, PrintsTheCodeOfAFailure) {
    TlsPair tls;
    tls.pair.far.closeNow();
    EXPECT_EQ(nWrite(tls.pair.near.get(), "hello", 1, tls.near.get()), -1);
    EXPECT_EQ(sPrinted_,
              "ssl error from write: 5\n"
              "orvex write msg returning error - strerror=Broken pipe\n");
    const UnwritableSession session;
    EXPECT_EQ(nWrite(pair_.near.get(), "x", 1000, session.get()), -1);
    EXPECT_THAT(sPrinted_,
                testing::StartsWith("ssl error from write: 3\norvex write msg returning error"));
}

TEST_F(TimedWriteTls, StoresAFailureInWordsWhereAsked) {
    const UnwritableSession session;
    std::string sText;
    const std::string sBytes = "x";
    TimedWrite job = jobFor(pair_.near.get(), sBytes, 1000, session.get());
    job.psErrorText = &sText;
    EXPECT_EQ(nCaptured([&] { return nTimedWrite(job); }), -1);
    EXPECT_EQ(sText, "SSL_ERROR_WANT_WRITE during SSL write, choosing close");
    EXPECT_THAT(sPrinted_, testing::StartsWith("orvex write msg returning error"));
}

using WritePlain = TimedWriteTest;

TEST_F(WritePlain, WritesToSocketsAndToOtherDescriptors) {
    EXPECT_EQ(nWritePlain(pair_.near.get(), "hello", 5, 0), 5);
    EXPECT_EQ(sReadWaiting(pair_.far.get()), "hello");
    EXPECT_EQ(nWritePlain(pipe_.in.get(), "hello", 5, 0), 5);
    std::array<char, 8> ach{};
    EXPECT_EQ(read(pipe_.out.get(), ach.data(), ach.size()), 5);
    EXPECT_STREQ(ach.data(), "hello");
}

TEST_F(WritePlain, FailsWithErrnoAsWriteDoes) {
    EXPECT_EQ(nWritePlain(-1, "x", 1, 0), -1);
    EXPECT_EQ(errno, EBADF);
    pair_.far.closeNow();
    EXPECT_EQ(nWritePlain(pair_.near.get(), "x", 1, 0), -1);
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(WritePlain, DoesNotWaitOnAFullPipeWhenToldSo) {
    const int nCapacity = fcntl(pipe_.in.get(), F_GETPIPE_SZ);
    EXPECT_EQ(
        nWritePlain(pipe_.in.get(), sBig_.data(), static_cast<int>(sBig_.size()), MSG_DONTWAIT),
        nCapacity);
    EXPECT_EQ(nWritePlain(pipe_.in.get(), "x", 1, MSG_DONTWAIT), -1);
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_FALSE(bIsNonBlockingForTest(pipe_.in.get()));
}

TEST_F(WritePlain, RaisesNoSigPipeOnAPipeWithoutReader) {
    pipe_.out.closeNow();
    const auto before = std::signal(SIGPIPE, SIG_DFL);  // which would end this process
    int nResult = 0;
    std::thread([&] {
        sigset_t sigPipe;
        sigemptyset(&sigPipe);
        sigaddset(&sigPipe, SIGPIPE);
        pthread_sigmask(SIG_UNBLOCK, &sigPipe, nullptr);
        nResult = nWritePlain(pipe_.in.get(), "x", 1, 0);
    }).join();
    std::signal(SIGPIPE, before);
    EXPECT_EQ(nResult, -1);
}
