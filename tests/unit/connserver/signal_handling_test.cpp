#include "connserver/signal_handling.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "tests/unit/connserver/stdout_capture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

sigset_t currentMask() {
    sigset_t current;
    pthread_sigmask(SIG_SETMASK, nullptr, &current);
    return current;
}

bool bIsBlocked(int nSignal) {
    const sigset_t current = currentMask();
    return sigismember(&current, nSignal) == 1;
}

bool bIsPending(int nSignal) {
    sigset_t pending;
    sigpending(&pending);
    return sigismember(&pending, nSignal) == 1;
}

class SignalHandling : public testing::Test {
  protected:
    SignalHandling() { exitRequested = 0; }
    ~SignalHandling() override {
        closeSignalHandler();
        exitRequested = 0;
        for (const int nSignal : {SIGTERM, SIGINT, SIGPIPE}) {
            std::signal(nSignal, SIG_DFL);
        }
        const sigset_t before = before_;
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    /// Writes to a pipe without a reader.
    static void expectBrokenPipe() {
        int nEnds[2];
        ASSERT_EQ(0, pipe(nEnds));
        close(nEnds[0]);
        EXPECT_EQ(-1, write(nEnds[1], "x", 1));
        EXPECT_EQ(EPIPE, errno);
        close(nEnds[1]);
    }

    const sigset_t before_ = currentMask();
    StdoutCapture stdout_;
};

TEST_F(SignalHandling, BlocksItsSignalsAndRestoresTheMask) {
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    ASSERT_TRUE(setupSignalHandler());
    EXPECT_TRUE(bIsBlocked(SIGPIPE) && bIsBlocked(SIGTERM) && bIsBlocked(SIGINT));
    EXPECT_FALSE(bIsBlocked(SIGHUP));
    closeSignalHandler();
    EXPECT_FALSE(bIsBlocked(SIGPIPE) || bIsBlocked(SIGTERM));
    EXPECT_TRUE(bIsBlocked(SIGINT));  // It was before.
}

TEST_F(SignalHandling, RequestsExitOnTermination) {
    ASSERT_TRUE(setupSignalHandler());
    EXPECT_EQ(0, exitRequested);
    kill(getpid(), SIGTERM);
    EXPECT_TRUE(bEventually([] { return exitRequested == 1; }));
}

TEST_F(SignalHandling, RequestsExitOnInterrupt) {
    ASSERT_TRUE(setupSignalHandler());
    kill(getpid(), SIGINT);
    EXPECT_TRUE(bEventually([] { return exitRequested == 1; }));
}

TEST_F(SignalHandling, LeavesASecondRequestPendingWithoutEffect) {
    ASSERT_TRUE(setupSignalHandler());
    kill(getpid(), SIGINT);
    ASSERT_TRUE(bWaitForExitRequest(10'000));
    kill(getpid(), SIGINT);
    kill(getpid(), SIGTERM);
    EXPECT_TRUE(bIsPending(SIGINT) && bIsPending(SIGTERM));
    EXPECT_EQ(1, exitRequested);
    closeSignalHandler();  // Now unblocked, they must not end this process.
    EXPECT_FALSE(bIsPending(SIGINT) || bIsPending(SIGTERM));
    EXPECT_FALSE(bIsBlocked(SIGTERM));
    kill(getpid(), SIGTERM);
    kill(getpid(), SIGINT);
}

TEST_F(SignalHandling, DiscardsBrokenPipes) {
    ASSERT_TRUE(setupSignalHandler());
    for (int i = 0; i < 20; ++i) {
        expectBrokenPipe();
        kill(getpid(), SIGPIPE);
    }
    EXPECT_FALSE(bWaitForExitRequest(20));
    EXPECT_EQ(0, exitRequested);
    kill(getpid(), SIGTERM);  // The thread is still waiting.
    EXPECT_TRUE(bWaitForExitRequest(10'000));
}

TEST_F(SignalHandling, SurvivesClosingAfterABrokenPipe) {
    ASSERT_TRUE(setupSignalHandler());
    expectBrokenPipe();
    EXPECT_TRUE(bIsPending(SIGPIPE));  // For this thread; no other can receive it.
    closeSignalHandler();
    EXPECT_FALSE(bIsPending(SIGPIPE));
    EXPECT_FALSE(bIsBlocked(SIGPIPE));
}

TEST_F(SignalHandling, ReportsItsProgressWhenItCloses) {
    ASSERT_TRUE(setupSignalHandler());
    closeSignalHandler();
    EXPECT_EQ(
        "signal handler thread running, let's close it\n"
        "joining signal handler thread...\n"
        "signal handler thread joined\n",
        stdout_.sText());
}

TEST_F(SignalHandling, ClosesWithoutWaitingWhenTheThreadHasEnded) {
    ASSERT_TRUE(setupSignalHandler());
    kill(getpid(), SIGTERM);
    ASSERT_TRUE(bWaitForExitRequest(10'000));
    const auto start = steady_clock::now();
    closeSignalHandler();
    EXPECT_GT(milliseconds(2000), steady_clock::now() - start);
    EXPECT_EQ(1, nOccurrences(stdout_.sText(), "signal handler thread joined"));
}

TEST_F(SignalHandling, JoinsAnEndedThreadSilently) {
    ASSERT_TRUE(setupSignalHandler());
    kill(getpid(), SIGTERM);
    ASSERT_TRUE(bWaitForExitRequest(10'000));
    joinEndedSignalThread();
    joinEndedSignalThread();
    closeSignalHandler();  // There is no thread left to close.
    EXPECT_EQ("", stdout_.sText());
}

TEST_F(SignalHandling, DoesNotWaitForAThreadThatIsNotAskedToEnd) {
    joinEndedSignalThread();  // There is none.
    ASSERT_TRUE(setupSignalHandler());
    joinEndedSignalThread();
    kill(getpid(), SIGTERM);  // The thread is still waiting.
    EXPECT_TRUE(bWaitForExitRequest(10'000));
}

TEST_F(SignalHandling, MayBeClosedTwiceOrUnused) {
    closeSignalHandler();
    ASSERT_TRUE(setupSignalHandler());
    closeSignalHandler();
    const std::string sText = stdout_.sText();
    closeSignalHandler();
    EXPECT_EQ(sText, stdout_.sText());
}

TEST_F(SignalHandling, CanBeSetUpAgain) {
    for (int i = 0; i < 3; ++i) {
        exitRequested = 0;
        ASSERT_TRUE(setupSignalHandler());
        kill(getpid(), SIGTERM);
        EXPECT_TRUE(bWaitForExitRequest(10'000));
        closeSignalHandler();
    }
}

TEST_F(SignalHandling, ReportsThatTheThreadCannotStart) {
    pthread_attr_t usual;
    pthread_attr_t huge;
    pthread_getattr_default_np(&usual);
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, std::size_t{1} << 47U);  // More than there are addresses.
    pthread_setattr_default_np(&huge);
    EXPECT_FALSE(setupSignalHandler());
    pthread_setattr_default_np(&usual);
    EXPECT_EQ("pthread_create error: Resource temporarily unavailable", stdout_.sText());
    EXPECT_TRUE(bIsBlocked(SIGPIPE));
    closeSignalHandler();
    EXPECT_EQ(0, nOccurrences(stdout_.sText(), "joining"));
    pthread_attr_destroy(&usual);
    pthread_attr_destroy(&huge);
}

TEST_F(SignalHandling, SleepsAsLongAsAskedWithoutARequest) {
    ASSERT_TRUE(setupSignalHandler());
    const auto start = steady_clock::now();
    EXPECT_FALSE(bWaitForExitRequest(30));
    EXPECT_LE(milliseconds(30), steady_clock::now() - start);
    EXPECT_FALSE(bWaitForExitRequest(0));
    EXPECT_FALSE(bWaitForExitRequest(-1500));
}

TEST_F(SignalHandling, WakesASleepingThreadOnTermination) {
    ASSERT_TRUE(setupSignalHandler());
    const auto start = steady_clock::now();
    std::thread killer([sleeper = gettid()] {
        EXPECT_TRUE(bEventually([sleeper] { return bIsAsleep(sleeper); }));
        kill(getpid(), SIGTERM);
    });
    EXPECT_TRUE(bWaitForExitRequest(60'000));
    EXPECT_GT(milliseconds(20'000), steady_clock::now() - start);
    killer.join();
    EXPECT_TRUE(bWaitForExitRequest(60'000));  // Every later sleep ends at once.
    EXPECT_TRUE(bWaitForExitRequest(0));
    EXPECT_GT(milliseconds(20'000), steady_clock::now() - start);
}

TEST_F(SignalHandling, DoesNotMistakeAnOldWakeUpForARequest) {
    ASSERT_TRUE(setupSignalHandler());
    kill(getpid(), SIGTERM);
    ASSERT_TRUE(bWaitForExitRequest(10'000));
    exitRequested = 0;
    EXPECT_FALSE(bWaitForExitRequest(10));
}

}  // namespace
