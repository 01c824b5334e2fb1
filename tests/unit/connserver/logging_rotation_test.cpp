// When the log moves to the file that the marker then names, and what becomes of the lines.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "connserver/logging.h"
#include "tests/unit/connserver/logging_fixture.h"

namespace {

/// A running log, whose files show the rotations.
class LogRotation : public LoggingFixture {
  protected:
    LogRotation() { EXPECT_TRUE(setupLogging(false, sDirectory_)); }

    /// Names another file in the marker and checks the time once, at the given one. True if that
    /// rotated the log.
    [[nodiscard]] bool bRotatesAt(int nHour, int nMinute, int nSecond, int nDay = 3) {
        const std::string sNext = "next" + std::to_string(++nNext_) + ".log";
        setMarker(sNext + "\n");
        setLocalTime(nHour, nMinute, nSecond, nDay);
        loggingTimeCheck();
        return std::filesystem::exists(sDirectory_ + sNext);
    }

    int nNext_ = 0;
};

TEST_F(LogRotation, HappensOnceInItsTenSeconds) {
    EXPECT_TRUE(bRotatesAt(0, 5, 3));
    EXPECT_FALSE(bRotatesAt(0, 5, 3));
    EXPECT_FALSE(bRotatesAt(0, 5, 7));
}

TEST_F(LogRotation, HappensFromTheFirstToTheLastOfItsSeconds) {
    EXPECT_TRUE(bRotatesAt(0, 5, 0));
    EXPECT_FALSE(bRotatesAt(0, 5, 10));
    EXPECT_TRUE(bRotatesAt(0, 5, 9, 4));
}

TEST_F(LogRotation, HappensAtNoOtherTime) {
    EXPECT_FALSE(bRotatesAt(0, 4, 59));
    EXPECT_FALSE(bRotatesAt(0, 5, 10));
    EXPECT_FALSE(bRotatesAt(0, 5, 20));
    EXPECT_FALSE(bRotatesAt(0, 6, 3));
    EXPECT_FALSE(bRotatesAt(12, 5, 3));
    EXPECT_FALSE(bRotatesAt(1, 5, 3));
}

TEST_F(LogRotation, IsArmedAgainInTheNextTenSeconds) {
    EXPECT_TRUE(bRotatesAt(0, 5, 3));
    EXPECT_FALSE(bRotatesAt(0, 5, 12));
    EXPECT_TRUE(bRotatesAt(0, 5, 3, 4));
    EXPECT_FALSE(bRotatesAt(0, 5, 19, 4));
    EXPECT_TRUE(bRotatesAt(0, 5, 3, 5));
}

TEST_F(LogRotation, IsNotArmedAgainByAnyLaterSecond) {
    EXPECT_TRUE(bRotatesAt(0, 5, 3));
    EXPECT_FALSE(bRotatesAt(0, 5, 20));
    EXPECT_FALSE(bRotatesAt(0, 6, 12));
    EXPECT_FALSE(bRotatesAt(0, 5, 3, 4));
}

TEST_F(LogRotation, MovesLaterLinesToTheNewFile) {
    writeToLog(false, "old\n");
    EXPECT_EQ("old\n", sDrainedLog());
    EXPECT_TRUE(bRotatesAt(0, 5, 3));
    writeToLog(false, "new\n");
    EXPECT_EQ("new\n", sDrainedLog("next1.log"));
    EXPECT_EQ("old\n", sLog());
}

TEST_F(LogRotation, MayReopenTheSameFile) {
    writeToLog(false, "before\n");
    ASSERT_TRUE(bDrainLog(10'000));
    setLocalTime(0, 5, 3);
    loggingTimeCheck();
    writeToLog(false, "after\n");
    EXPECT_EQ("before\nafter\n", sDrainedLog());
}

TEST_F(LogRotation, KeepsTheOldFileWithoutAMarker) {
    std::filesystem::remove(sMarkerPath());
    setLocalTime(0, 5, 3);
    loggingTimeCheck();
    writeToLog(false, "still\n");
    const std::string sText = sDrainedLog();
    EXPECT_EQ(1, nOccurrences(sText, "\nstill\n")) << sText;
    EXPECT_EQ(1, nOccurrences(sText, "12:05:03 AM - WARNING: log not reopened")) << sText;
}

TEST_F(LogRotation, DoesNotTryAgainInTheSameTenSeconds) {
    std::filesystem::remove(sMarkerPath());
    setLocalTime(0, 5, 3);
    loggingTimeCheck();
    EXPECT_FALSE(bRotatesAt(0, 5, 4));
    EXPECT_FALSE(bRotatesAt(0, 5, 12));
    EXPECT_TRUE(bRotatesAt(0, 5, 3, 4));
}

TEST_F(LogRotation, KeepsTheOldFileWhenTheNewOneCannotBeOpened) {
    setMarker("missing/x.log\n");
    setLocalTime(0, 5, 3);
    loggingTimeCheck();
    writeToLog(false, "still\n");
    const std::string sText = sDrainedLog();
    EXPECT_EQ(1, nOccurrences(sText, "missing/x.log: No such file or directory\nstill\n")) << sText;
}

TEST_F(LogRotation, EndsTheFallBackToStandardOutput) {
    closeLog();
    setMarker("missing/x.log\n");
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    EXPECT_TRUE(bRotatesAt(0, 5, 3));
    writeToLog(false, "in a file again\n");
    EXPECT_EQ("in a file again\n", sDrainedLog("next1.log"));
}

TEST_F(LogRotation, DoesNotAffectSimpleLogging) {
    closeLog();
    ASSERT_TRUE(setupLogging(true, sDirectory_));
    EXPECT_FALSE(bRotatesAt(0, 5, 3));
}

TEST_F(LogRotation, LosesNoLineWhileLinesAreWritten) {
    for (int nDay = 3; nDay < 23; ++nDay) {
        for (int nLine = 0; nLine < 100; ++nLine) {
            writeToLog(false, "<line>\n");
        }
        EXPECT_TRUE(bRotatesAt(0, 5, 1, nDay));
        EXPECT_FALSE(bRotatesAt(0, 5, 11, nDay));
    }
    closeLog();
    int nLines = 0;
    for (const auto& entry : std::filesystem::directory_iterator(sDirectory_)) {
        if (entry.is_regular_file()) {
            nLines += nOccurrences(sFileContent(entry.path()), "<line>\n");
        }
    }
    EXPECT_EQ(2000, nLines);
}

}  // namespace
