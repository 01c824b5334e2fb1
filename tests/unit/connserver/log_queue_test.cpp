#include "connserver/log_queue.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <deque>
#include <string>
#include <thread>

#include "tests/unit/base/waiting.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class LogQueue : public testing::Test {
  protected:
    LogQueue() { openLogQueue(); }
    /// Other tests wait until all lines ever queued are written.
    ~LogQueue() override {
        (void)closeLogQueue();
        noteLogLinesWritten(logQueueCounts().nQueued - logQueueCounts().nWritten);
    }

    static void queue(const std::string& sText) {
        std::string sLine = sText;
        EXPECT_TRUE(bQueueLogLine(sLine));
    }
    static std::deque<std::string> fetched() {
        std::deque<std::string> batch;
        fetchLogLines(batch);
        return batch;
    }
    /// Starts a thread that waits, again after every wake-up for lines, and returns when it sleeps.
    void startWaiter() {
        waiter_ = std::thread([this] {
            tidWaiter_ = gettid();
            while ((endedWith_ = awaitLogLine()) == LogWait::kLines) {
                ++nWakeUps_;
            }
        });
        EXPECT_TRUE(bWaiterSleeps());
    }
    [[nodiscard]] bool bWaiterSleeps() const {
        return bEventually([this] { return tidWaiter_ != 0 && bIsAsleep(tidWaiter_); });
    }

    std::thread waiter_;
    std::atomic<pid_t> tidWaiter_{0};
    std::atomic<int> nWakeUps_{0};
    LogWait endedWith_ = LogWait::kLines;
};

TEST_F(LogQueue, GivesLinesInTheirOrder) {
    queue("one\n");
    queue("two\n");
    EXPECT_EQ(2U, nLogQueueSize());
    queue("three\n");
    EXPECT_THAT(fetched(), ElementsAre("one\n", "two\n", "three\n"));
    EXPECT_EQ(0U, nLogQueueSize());
    EXPECT_THAT(fetched(), IsEmpty());
}

TEST_F(LogQueue, TakesNoLineWhileItIsClosed) {
    (void)closeLogQueue();
    std::string sLine = "kept by the caller\n";
    EXPECT_FALSE(bQueueLogLine(sLine));
    EXPECT_EQ("kept by the caller\n", sLine);
    EXPECT_EQ(0U, nLogQueueSize());
    openLogQueue();
    EXPECT_TRUE(bQueueLogLine(sLine));
}

TEST_F(LogQueue, HandsOverTheRestWhenItIsClosed) {
    queue("fetched\n");
    EXPECT_THAT(fetched(), ElementsAre("fetched\n"));
    queue("left\n");
    queue("over\n");
    EXPECT_THAT(closeLogQueue(), ElementsAre("left\n", "over\n"));
    EXPECT_THAT(closeLogQueue(), IsEmpty());
    EXPECT_THAT(fetched(), IsEmpty());
}

TEST_F(LogQueue, CountsLinesQueuedAndWritten) {
    const LogQueueCounts before = logQueueCounts();
    queue("one\n");
    queue("two\n");
    EXPECT_EQ(before.nQueued + 2, logQueueCounts().nQueued);
    EXPECT_EQ(before.nWritten, logQueueCounts().nWritten);
    noteLogLinesWritten(fetched().size());
    EXPECT_EQ(before.nQueued + 2, logQueueCounts().nQueued);
    EXPECT_EQ(before.nWritten + 2, logQueueCounts().nWritten);
}

TEST_F(LogQueue, WakesTheWaiterOnceForAllThatWaits) {
    startWaiter();
    const int nEarlier = nWakeUps_;
    queue("one\n");
    queue("two\n");
    EXPECT_TRUE(bEventually([&] { return nWakeUps_ > nEarlier; }));
    EXPECT_TRUE(bWaiterSleeps());
    EXPECT_EQ(nEarlier + 1, nWakeUps_);
    EXPECT_THAT(fetched(), ElementsAre("one\n", "two\n"));
    queue("three\n");
    EXPECT_TRUE(bEventually([&] { return nWakeUps_ == nEarlier + 2; }));
    stopLogWaits();
    waiter_.join();
}

TEST_F(LogQueue, StopsTheWaiter) {
    startWaiter();
    stopLogWaits();
    waiter_.join();
    EXPECT_EQ(LogWait::kStopped, endedWith_);
}

TEST_F(LogQueue, ForgetsAStopWhenItIsOpenedAgain) {
    stopLogWaits();
    EXPECT_EQ(LogWait::kStopped, awaitLogLine());
    openLogQueue();
    queue("line\n");
    EXPECT_EQ(LogWait::kLines, awaitLogLine());
}

TEST_F(LogQueue, ReportsAWaitThatASignalInterrupts) {
    struct sigaction interrupting {};
    struct sigaction before {};
    interrupting.sa_handler = [](int) {};  // Without SA_RESTART.
    sigaction(SIGUSR1, &interrupting, &before);
    startWaiter();
    pthread_kill(waiter_.native_handle(), SIGUSR1);
    waiter_.join();
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_EQ(LogWait::kFailed, endedWith_);
}

TEST_F(LogQueue, ReportsTheLinesLostWhileTheDiskHangs) {
    for (std::size_t i = 0; i < kMaxQueuedLogLines + 3; ++i) {
        std::string sLine = "line\n";
        ASSERT_TRUE(bQueueLogLine(sLine));
    }
    EXPECT_EQ(kMaxQueuedLogLines, nLogQueueSize());
    const std::deque<std::string> batch = fetched();
    EXPECT_EQ(kMaxQueuedLogLines + 1, batch.size());
    EXPECT_EQ("WARNING: the log was too slow, 3 lines are lost\n", batch.back());
    noteLogLinesWritten(batch.size());
    EXPECT_EQ(logQueueCounts().nQueued, logQueueCounts().nWritten);
    EXPECT_THAT(fetched(), IsEmpty()) << "they are reported once";
}

}  // namespace
