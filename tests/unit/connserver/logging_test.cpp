#include "connserver/logging.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <thread>
#include <vector>

#include "connserver/log_queue.h"
#include "tests/unit/connserver/logging_fixture.h"

namespace {

using testing::ExitedWithCode;
using Logging = LoggingFixture;

TEST_F(Logging, PutsExactlyTheTextIntoTheFile) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "%s", "no newline, 100%");
    writeToLog(false, " id %d\n", 7);
    EXPECT_EQ("no newline, 100% id 7\n", sDrainedLog());
}

TEST_F(Logging, BeginsALineWithTheLocalTimeWhenAsked) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    setLocalTime(21, 5, 1);
    writeToLog(true, "evening\n");
    setLocalTime(0, 0, 9);
    writeToLog(true, "midnight\n");
    EXPECT_EQ("09:05:01 PM - evening\n12:00:09 AM - midnight\n", sDrainedLog());
}

TEST_F(Logging, AppendsToTheFile) {
    std::ofstream(sDirectory_ + "first.log") << "before\n";
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "after\n");
    EXPECT_EQ("before\nafter\n", sDrainedLog());
}

TEST_F(Logging, KeepsLinesOfAnyLength) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    const std::string sLong(200'000, 'x');
    writeToLog(false, "%s", sLong.c_str());
    EXPECT_EQ(sLong, sDrainedLog());
}

TEST_F(Logging, SaysWhereTheLogsAre) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    closeLog();
    const std::string sText = stdout_.sText();
    EXPECT_EQ(1, nOccurrences(sText, "all file logs are in " + sDirectory_ + "\n")) << sText;
    EXPECT_EQ(1, nOccurrences(sText, "logging thread starting...")) << sText;
}

TEST_F(Logging, UsesTheDirectoryAsAPlainPrefix) {
    const std::string sWithoutSlash = sDirectory_.substr(0, sDirectory_.size() - 1);
    EXPECT_FALSE(setupLogging(false, sWithoutSlash));
}

TEST_F(Logging, StripsOneNewlineOfTheMarkerAndKeepsACarriageReturn) {
    setMarker("dos.log\r\nsecond line\n");
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "x\n");
    EXPECT_EQ("x\n", sDrainedLog("dos.log\r"));
}

TEST_F(Logging, UsesAMarkerWithoutNewlineAsItIs) {
    setMarker("plain.log");
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "x\n");
    EXPECT_EQ("x\n", sDrainedLog("plain.log"));
}

TEST_F(Logging, ReadsAtMost1023CharactersOfTheMarker) {
    // Four directories of 250 characters, a slash each, then 19 more characters: 1023 in all.
    std::string sName;
    for (int i = 0; i < 4; ++i) {
        sName += std::string(250, 'd') + "/";
    }
    std::filesystem::create_directories(sDirectory_ + sName);
    sName += std::string(1023 - sName.size(), 'f');
    setMarker(sName + "beyond\n");
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "x\n");
    EXPECT_EQ("x\n", sDrainedLog(sName));
}

TEST_F(Logging, ReportsAMissingMarkerAndFails) {
    std::filesystem::remove(sMarkerPath());
    EXPECT_FALSE(setupLogging(false, sDirectory_));
    EXPECT_EQ("Logging error: sys/currentlyusedlogfile.name not found in " + sDirectory_ +
                  ". Please modify LOGGING_DIRECTORY value. connserver quitting.\n",
              stdout_.sText());
}

TEST_F(Logging, PrintsLinesAtOnceWhenItCouldNotBeSetUp) {
    std::filesystem::remove(sMarkerPath());
    EXPECT_FALSE(setupLogging(false, sDirectory_));
    writeToLog(false, "still here\n");
    EXPECT_EQ(1, nOccurrences(stdout_.sUnflushedText(), "quitting.\nstill here\n"));
    EXPECT_TRUE(bDrainLog(0));
    setMarker("late.log\n");
    setLocalTime(0, 5, 3);
    loggingTimeCheck();
    writeToLog(false, "and here\n");
    EXPECT_EQ(1, nOccurrences(stdout_.sUnflushedText(), "and here\n"));
    EXPECT_FALSE(std::filesystem::exists(sDirectory_ + "late.log"));
}

TEST_F(Logging, PrintsLinesAtOnceBeforeAndAfter) {
    writeToLog(false, "early\n");
    EXPECT_EQ("early\n", stdout_.sUnflushedText());
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "during\n");
    closeLog();
    setLocalTime(9, 8, 7);
    writeToLog(true, "late\n");
    EXPECT_EQ(1, nOccurrences(stdout_.sUnflushedText(), "09:08:07 AM - late\n"));
    EXPECT_EQ("during\n", sLog());
}

TEST_F(Logging, FallsBackToStandardOutputWithoutALogFile) {
    setMarker("missing/x.log\n");
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "fallback\n");
    ASSERT_TRUE(bDrainLog(10'000));
    const std::string sText = stdout_.sUnflushedText();
    EXPECT_EQ(1, nOccurrences(sText, "fallback\n")) << sText;
    EXPECT_EQ(1, nOccurrences(sText, "missing/x.log cannot be opened (No such file")) << sText;
}

TEST_F(Logging, FallsBackToStandardOutputWithAnEmptyMarker) {
    setMarker("");
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "fallback\n");
    ASSERT_TRUE(bDrainLog(10'000));
    EXPECT_EQ(1, nOccurrences(stdout_.sUnflushedText(), "fallback\n"));
}

TEST_F(Logging, PrintsToStandardOutputInSimpleLogging) {
    ASSERT_TRUE(setupLogging(true, "/nonexistent/"));
    EXPECT_TRUE(bIsSimpleLogging());
    writeToLog(false, "simple\n");
    ASSERT_TRUE(bDrainLog(10'000));
    const std::string sText = stdout_.sUnflushedText();
    EXPECT_EQ(1, nOccurrences(sText, "simple\n")) << sText;
    EXPECT_EQ(0, nOccurrences(sText, "all file logs")) << sText;
}

TEST_F(Logging, LogsBytesReadably) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    const char achBytes[] = {'A', '\x01', '%', 's'};
    printchars(achBytes, 4);
    printrawchars(achBytes, 2);
    printchars(nullptr, 4);
    EXPECT_EQ("A[1]%s[41][01]", sDrainedLog());
}

TEST_F(Logging, KeepsTheOrderOfEveryThread) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    constexpr int kThreads = 4;
    constexpr int kLines = 2000;
    std::vector<std::thread> writers;
    for (int nWriter = 0; nWriter < kThreads; ++nWriter) {
        writers.emplace_back([nWriter] {
            for (int nLine = 0; nLine < kLines; ++nLine) {
                writeToLog(nLine % 2 == 0, "<%d:%d>\n", nWriter, nLine);
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    const std::string sText = sDrainedLog();
    EXPECT_EQ(kThreads * kLines, nOccurrences(sText, "\n"));
    for (int nWriter = 0; nWriter < kThreads; ++nWriter) {
        std::size_t nPosition = 0;
        for (int nLine = 0; nLine < kLines; ++nLine) {
            const std::string sLine =
                "<" + std::to_string(nWriter) + ":" + std::to_string(nLine) + ">\n";
            nPosition = sText.find(sLine, nPosition);
            ASSERT_NE(std::string::npos, nPosition) << sLine;
        }
    }
}

TEST_F(Logging, ReportsItsProgressWhenItCloses) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "x\n");
    ASSERT_TRUE(bDrainLog(10'000));
    const auto start = std::chrono::steady_clock::now();
    closeLog();
    EXPECT_LE(std::chrono::milliseconds(50), std::chrono::steady_clock::now() - start);
    const std::string sText = stdout_.sText();
    const auto nClosing = sText.find("log thread running");
    ASSERT_NE(std::string::npos, nClosing);
    EXPECT_EQ(
        "log thread running, let's close it\n"
        "waiting for log queue to be safe to look at count...\n"
        "joining log thread...\n"
        "log thread joined\n",
        sText.substr(nClosing));
}

TEST_F(Logging, LosesNothingWhenClosed) {
    for (int nRound = 0; nRound < 5; ++nRound) {
        setMarker("round" + std::to_string(nRound) + ".log");
        ASSERT_TRUE(setupLogging(false, sDirectory_));
        for (int nLine = 0; nLine < 500; ++nLine) {
            writeToLog(true, "line %d\n", nLine);
        }
        closeLog();
        EXPECT_EQ(500, nOccurrences(sLog("round" + std::to_string(nRound) + ".log"), "\n"));
    }
}

TEST_F(Logging, LosesNothingOfOtherThreadsWhenClosed) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    constexpr int kLines = 3000;
    std::thread writer([] {
        for (int nLine = 0; nLine < kLines; ++nLine) {
            writeToLog(false, "<line %d>\n", nLine);
        }
    });
    closeLog();
    writer.join();
    EXPECT_EQ(kLines, nOccurrences(sLog(), "<line ") + nOccurrences(stdout_.sText(), "<line "));
}

TEST_F(Logging, MayBeClosedTwiceOrUnused) {
    closeLog();
    EXPECT_EQ("", stdout_.sText());
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    closeLog();
    const std::string sText = stdout_.sText();
    closeLog();
    EXPECT_EQ(sText, stdout_.sText());
}

TEST_F(Logging, CanBeSetUpAgainWithoutClosing) {
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "one\n");
    setMarker("second.log\n");
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "two\n");
    EXPECT_EQ("two\n", sDrainedLog("second.log"));
    EXPECT_EQ("one\n", sLog());
}

TEST_F(Logging, FallsBackToStandardOutputWhenItsThreadEnds) {
    struct sigaction interrupting {};
    struct sigaction before {};
    interrupting.sa_handler = [](int) {};  // Without SA_RESTART, so that waits are interrupted.
    sigaction(SIGUSR2, &interrupting, &before);
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    writeToLog(false, "to the file\n");
    sigset_t usr2;
    sigemptyset(&usr2);
    sigaddset(&usr2, SIGUSR2);
    pthread_sigmask(SIG_BLOCK, &usr2, nullptr);  // Only the logging thread can receive it.
    EXPECT_TRUE(bEventually([this] {
        if (nOccurrences(stdout_.sText(), "logging thread exiting") != 0) {
            return true;
        }
        kill(getpid(), SIGUSR2);
        return false;
    }));
    writeToLog(false, "to standard output\n");
    EXPECT_EQ(1, nOccurrences(stdout_.sUnflushedText(), "to standard output\n"));
    closeLog();
    EXPECT_EQ("to the file\n", sLog());
    EXPECT_EQ(1, nOccurrences(stdout_.sText(), "log thread joined"));
    const timespec noWait{};
    (void)sigtimedwait(&usr2, nullptr, &noWait);
    pthread_sigmask(SIG_UNBLOCK, &usr2, nullptr);
    sigaction(SIGUSR2, &before, nullptr);
}

TEST_F(Logging, PrintsLinesAtOnceWhenTheThreadCannotStart) {
    pthread_attr_t usual;
    pthread_attr_t huge;
    pthread_getattr_default_np(&usual);
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, std::size_t{1} << 47U);  // More than there are addresses.
    pthread_setattr_default_np(&huge);
    EXPECT_FALSE(setupLogging(false, sDirectory_));
    pthread_setattr_default_np(&usual);
    writeToLog(false, "no thread\n");
    EXPECT_EQ(1, nOccurrences(stdout_.sUnflushedText(), "no thread\n"));
    EXPECT_EQ(1, nOccurrences(stdout_.sUnflushedText(), "pthread_create error: "));
    pthread_attr_destroy(&usual);
    pthread_attr_destroy(&huge);
}

/// The log goes to a small pipe that is not read until `closeLog` has given up waiting.
class StuckLogging : public LoggingFixture {
  protected:
    StuckLogging() {
        const std::string sPipe = sDirectory_ + "first.log";
        EXPECT_EQ(0, mkfifo(sPipe.c_str(), 0600));
        nPipe_ = open(sPipe.c_str(), O_RDWR | O_NONBLOCK);
        EXPECT_LE(0, fcntl(nPipe_, F_SETPIPE_SZ, 4096));
    }
    ~StuckLogging() override { close(nPipe_); }

    /// Reads until `nBytes` have come or ten seconds have passed.
    std::string sReadFromPipe(std::size_t nBytes) const {
        std::string sText;
        EXPECT_TRUE(bEventually([&] {
            char achBuffer[4096];
            const ssize_t nRead = read(nPipe_, achBuffer, sizeof achBuffer);
            if (nRead > 0) {
                sText.append(achBuffer, static_cast<std::size_t>(nRead));
            }
            return sText.size() >= nBytes;
        }));
        return sText;
    }

    int nPipe_ = -1;
};

TEST_F(StuckLogging, GivesUpWaitingAfterTenAttemptsAndStillJoinsWithoutLoss) {
    const std::string sUnable =
        "We may have been unable to completely clear the log queue - current unprotected size is "
        "2\n";
    ASSERT_TRUE(setupLogging(false, sDirectory_));
    const std::string sFirst(20'000, 'x');
    writeToLog(false, "%s", sFirst.c_str());
    ASSERT_TRUE(
        bEventually([] { return nLogQueueSize() == 0; }));  // Now its thread is blocked in a write.
    writeToLog(false, "second\n");
    writeToLog(false, "third\n");
    EXPECT_FALSE(bDrainLog(20));

    const std::string sExpected = sFirst + "second\nthird\n";
    std::string sWritten;
    std::thread reader([&] {
        (void)bEventually([&] { return nOccurrences(stdout_.sUnflushedText(), sUnable) != 0; });
        sWritten = sReadFromPipe(sExpected.size());
    });
    const auto start = std::chrono::steady_clock::now();
    closeLog();
    const auto duration = std::chrono::steady_clock::now() - start;
    reader.join();
    const std::string sText = stdout_.sText();
    EXPECT_LE(std::chrono::milliseconds(500), duration);
    EXPECT_EQ(10, nOccurrences(sText, "waiting for log queue to be safe to look at count..."));
    EXPECT_EQ(1, nOccurrences(sText, sUnable)) << sText;
    EXPECT_EQ(1, nOccurrences(sText, "log thread joined"));
    EXPECT_EQ(sExpected, sWritten);
}

class LoggingExit : public LoggingFixture {
  protected:
    LoggingExit() { testing::GTEST_FLAG(death_test_style) = "threadsafe"; }
};

TEST_F(LoggingExit, SavesLinesWhenTheProcessExitsWithoutClosing) {
    const auto endByExit = [&] {
        (void)setupLogging(false, sDirectory_);
        for (int nLine = 0; nLine < 5000; ++nLine) {
            writeToLog(true, "line %d\n", nLine);
        }
        const bool bDrained = bDrainLog(10'000);
        const bool bComplete = nOccurrences(sLog(), "\n") == 5000;
        std::filesystem::remove_all(sDirectory_);
        std::exit(bDrained && bComplete ? 3 : 4);
    };
    EXPECT_EXIT(endByExit(), ExitedWithCode(3), "");
}

TEST_F(LoggingExit, SurvivesExitRightAfterLogging) {
    for (int nRound = 0; nRound < 3; ++nRound) {
        const auto endByExit = [&] {
            (void)setupLogging(nRound == 0, sDirectory_);
            for (int nLine = 0; nLine < 500; ++nLine) {
                writeToLog(true, "line %d\n", nLine);
            }
            std::filesystem::remove_all(sDirectory_);
            std::exit(3);
        };
        EXPECT_EXIT(endByExit(), ExitedWithCode(3), "");
    }
}

}  // namespace
