#include "connserver/log_file.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "tests/unit/connserver/logging_fixture.h"

namespace {

using LogFile = LoggingFixture;

TEST_F(LogFile, IsTheOneThatTheMarkerNames) {
    setMarker("second.log\n");
    ASSERT_EQ(LogFileResult::kOpened, openLogFile(sDirectory_));
    EXPECT_EQ("second.log", sLogFileName());
    writeLogLines({"one\n", "two\n"});
    EXPECT_EQ("one\ntwo\n", sLog("second.log")) << "flushed";
    EXPECT_EQ("", stdout_.sText());
}

TEST_F(LogFile, StaysOpenWithoutAMarker) {
    ASSERT_EQ(LogFileResult::kOpened, openLogFile(sDirectory_));
    std::filesystem::remove(sMarkerPath());
    EXPECT_EQ(LogFileResult::kNoMarker, openLogFile(sDirectory_));
    EXPECT_EQ("first.log", sLogFileName());
    writeLogLines({"line\n"});
    EXPECT_EQ("line\n", sLog());
}

TEST_F(LogFile, StaysOpenWhenTheNextOneCannotBeOpened) {
    ASSERT_EQ(LogFileResult::kOpened, openLogFile(sDirectory_));
    setMarker("missing/x.log\n");
    EXPECT_EQ(LogFileResult::kNoLogFile, openLogFile(sDirectory_));
    EXPECT_EQ(ENOENT, errno);
    EXPECT_EQ("missing/x.log", sLogFileName());
    writeLogLines({"line\n"});
    EXPECT_EQ("line\n", sLog());
}

TEST_F(LogFile, IsReplacedByTheNextOne) {
    ASSERT_EQ(LogFileResult::kOpened, openLogFile(sDirectory_));
    writeLogLines({"old\n"});
    setMarker("second.log\n");
    ASSERT_EQ(LogFileResult::kOpened, openLogFile(sDirectory_));
    writeLogLines({"new\n"});
    EXPECT_EQ("old\n", sLog());
    EXPECT_EQ("new\n", sLog("second.log"));
}

TEST_F(LogFile, GivesWayToStandardOutputWhenClosed) {
    ASSERT_EQ(LogFileResult::kOpened, openLogFile(sDirectory_));
    closeLogFile();
    closeLogFile();
    writeLogLines({"one\n", "two\n"});
    EXPECT_EQ("", sLog());
    EXPECT_EQ("one\ntwo\n", stdout_.sUnflushedText());
}

TEST_F(LogFile, EndsWithOneNoticeAfterSixtyMillionLines) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    setLineCountForTest(59'999'999);
    writeToLog(false, "the last\n");
    EXPECT_EQ("the last\n", sDrainedLog());
    writeToLog(false, "one too many\n");
    writeToLog(false, "two too many\n");
    writeToLog(false, "three too many\n");
    EXPECT_EQ("the last\nLog File Truncated at 60000000 lines\n", sDrainedLog());
}

TEST_F(LogFile, CountsAnEntryAsOneLineWhateverNewlinesItHolds) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    setLineCountForTest(59'999'998);
    writeToLog(false, "a\nb\nc\n");
    writeToLog(false, "d\n");
    EXPECT_EQ("a\nb\nc\nd\n", sDrainedLog());
}

TEST_F(LogFile, CountsFromZeroAfterARotation) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    setLineCountForTest(60'000'001);
    writeToLog(false, "dropped\n");
    EXPECT_EQ("", sDrainedLog());
    setMarker("second.log\n");
    setLocalTime(0, 5, 0);
    loggingTimeCheck();
    writeToLog(false, "kept\n");
    EXPECT_EQ("kept\n", sDrainedLog("second.log"));
}

TEST_F(LogFile, CountsFromZeroAfterASetup) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    setLineCountForTest(60'000'001);
    closeLog();
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "kept\n");
    EXPECT_EQ("kept\n", sDrainedLog());
}

TEST_F(LogFile, HasNoLimitOnStandardOutput) {
    ASSERT_TRUE(setupLogging(true, ""));
    setLineCountForTest(60'000'000);
    writeToLog(false, "printed\n");
    ASSERT_TRUE(bDrainLog(10'000));
    EXPECT_EQ(1, nOccurrences(stdout_.sUnflushedText(), "printed\n"));
}

}  // namespace
