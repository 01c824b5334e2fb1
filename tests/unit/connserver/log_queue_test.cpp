#include "connserver/log_queue.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>

namespace {

TEST(LogQueue, CountsTheLinesThatAHangingDiskCosts) {
    openLogQueue();
    for (std::size_t i = 0; i < kMaxQueuedLogLines + 3; ++i) {
        std::string sLine = "line\n";
        ASSERT_TRUE(bQueueLogLine(sLine));
    }
    EXPECT_EQ(kMaxQueuedLogLines, nLogQueueSize());
    std::deque<std::string> batch;
    fetchLogLines(batch);
    EXPECT_EQ(kMaxQueuedLogLines + 1, batch.size());
    EXPECT_EQ("WARNING: the log was too slow, 3 lines are lost\n", batch.back());
    noteLogLinesWritten(batch.size());
    EXPECT_EQ(logQueueCounts().nQueued, logQueueCounts().nWritten);
    (void)closeLogQueue();
}

}  // namespace
