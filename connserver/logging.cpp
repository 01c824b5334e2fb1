#include "connserver/logging.h"

#include <pthread.h>

#include <cerrno>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <deque>
#include <thread>
#include <utility>

#include "base/clock.h"
#include "base/get_strerror.h"
#include "base/printable_str.h"
#include "base/string_format.h"
#include "connserver/log_file.h"
#include "connserver/log_queue.h"

namespace {

/// Size of a time stamp ("09:05:01 PM - ") with its terminator.
constexpr std::size_t kTimePrefixSize = 15;

constexpr int kMaxCloseAttempts = 10;
constexpr std::chrono::milliseconds kCloseAttemptPause{50};
constexpr std::chrono::milliseconds kDrainPollPause{1};
/// Lines logged meanwhile are written together: they come in groups, and waking the thread costs
/// more than writing a line.
constexpr std::chrono::milliseconds kCollectPause{5};

bool bSimpleLogging = false;
pthread_t pttLogWrite = 0;    ///< The logging thread; zero when none runs. Main thread only.
bool modifiedOnce = false;    ///< Today's rotation is done; cleared some seconds later.
std::time_t tLastCheck = -1;  ///< The second that `loggingTimeCheck` checked last.

/// Never destroyed, so that a late rotation can still use it.
std::string& sLoggingDirectory() {
    static std::string& sDirectory = *new std::string;
    return sDirectory;
}

std::string sTimePrefix() {
    const std::time_t tNow = nowSecs();
    std::tm local{};
    char achStamp[kTimePrefixSize];
    localtime_r(&tNow, &local);
    const std::size_t nLength = std::strftime(achStamp, sizeof achStamp, "%I:%M:%S %p - ", &local);
    return std::string(achStamp, nLength);
}

void writeFetchedLines(std::deque<std::string>& batch) {
    if (batch.empty()) {
        return;  // A wake-up for lines that were fetched with an earlier one.
    }
    writeLogLines(batch);
    noteLogLinesWritten(batch.size());
    batch.clear();
}

/// Further lines go to standard output; those still queued are written.
void stopQueueing() {
    std::deque<std::string> rest = closeLogQueue();
    writeFetchedLines(rest);
}

void* logging_thread(void*) {
    std::puts("logging thread starting...");
    std::deque<std::string> batch;
    for (;;) {
        const LogWait result = awaitLogLine();
        if (result == LogWait::kStopped) {
            return nullptr;
        }
        if (result == LogWait::kFailed) {
            break;
        }
        std::this_thread::sleep_for(kCollectPause);
        fetchLogLines(batch);
        writeFetchedLines(batch);
    }
    stopQueueing();  // No one would fetch further lines.
    std::puts("logging thread exiting");
    return nullptr;
}

/// Opens the log file at start-up. False only without a marker.
bool bStartLogFile() {
    const std::string& sDirectory = sLoggingDirectory();
    const LogFileResult result = openLogFile(sDirectory);
    if (result == LogFileResult::kNoMarker) {
        std::printf(
            "Logging error: sys/currentlyusedlogfile.name not found in %s. Please modify "
            "LOGGING_DIRECTORY value. connserver quitting.\n",
            sDirectory.c_str());
        return false;
    }
    if (result == LogFileResult::kNoLogFile) {
        std::printf("Logging error: %s%s cannot be opened (%s), logging to standard output\n",
                    sDirectory.c_str(), sLogFileName().c_str(), get_strerror(errno).c_str());
    }
    std::printf("all file logs are in %s\n", sDirectory.c_str());
    return true;
}

bool bStartLoggingThread() {
    openLogQueue();
    const int nError = pthread_create(&pttLogWrite, nullptr, logging_thread, nullptr);
    if (nError == 0) {
        return true;
    }
    pttLogWrite = 0;
    std::printf("pthread_create error: %s\n", get_strerror(nError).c_str());
    stopQueueing();
    closeLogFile();
    return false;
}

/// Gives the thread time to fetch all lines. Lines left afterwards are not lost, only reported.
void awaitEmptyLogQueue() {
    bool bWasEmpty = false;
    for (int nAttempt = 0; nAttempt < kMaxCloseAttempts && !bWasEmpty; ++nAttempt) {
        std::puts("waiting for log queue to be safe to look at count...");
        bWasEmpty = nLogQueueSize() == 0;
        // Even if it was empty: the thread may still be writing its last batch.
        std::this_thread::sleep_for(kCloseAttemptPause);
    }
    if (!bWasEmpty) {
        std::printf(
            "We may have been unable to completely clear the log queue - current unprotected size "
            "is %zu\n",
            nLogQueueSize());
        std::fflush(stdout);
    }
}

void endLoggingThread() {
    std::puts("log thread running, let's close it");
    awaitEmptyLogQueue();
    stopLogWaits();
    std::puts("joining log thread...");
    pthread_join(pttLogWrite, nullptr);
    pttLogWrite = 0;
    std::puts("log thread joined");
}

void rotateLogFile() {
    // Set even if the rotation fails: otherwise every pass of the loop in these ten seconds would
    // try and log a warning again. The old file stays in use until the next day.
    modifiedOnce = true;
    const LogFileResult result = openLogFile(sLoggingDirectory());
    if (result == LogFileResult::kOpened) {
        return;
    }
    const std::string sReason = get_strerror(errno);
    const bool bNoMarker = result == LogFileResult::kNoMarker;
    writeToLog(true, "WARNING: log not reopened, %s%s: %s\n", sLoggingDirectory().c_str(),
               bNoMarker ? "sys/currentlyusedlogfile.name" : sLogFileName().c_str(),
               sReason.c_str());
}

}  // namespace

bool setupLogging(bool bSimpleOnly, std::string sLogDirIn) {
    closeLog();
    bSimpleLogging = bSimpleOnly;
    sLoggingDirectory() = std::move(sLogDirIn);
    modifiedOnce = false;
    tLastCheck = -1;
    if (!bSimpleLogging && !bStartLogFile()) {
        return false;
    }
    return bStartLoggingThread();
}

void writeToLog(bool timePrefix, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string sLine = vstring_format(format, args);
    va_end(args);
    if (timePrefix) {
        sLine.insert(0, sTimePrefix());
    }
    if (!bQueueLogLine(sLine)) {
        (void)std::fwrite(sLine.data(), 1, sLine.size(), stdout);
        std::fflush(stdout);
    }
}

void loggingTimeCheck() {
    if (bSimpleLogging || pttLogWrite == 0) {
        return;
    }
    // A second check within one second would find nothing left to do.
    const std::time_t tNow = nowSecs();
    if (tNow == tLastCheck) {
        return;
    }
    tLastCheck = tNow;
    std::tm local{};
    localtime_r(&tNow, &local);
    if (local.tm_hour != 0 || local.tm_min != 5) {
        return;
    }
    const int nTensOfSeconds = local.tm_sec / 10;
    if (nTensOfSeconds == 0 && !modifiedOnce) {
        rotateLogFile();
    } else if (nTensOfSeconds == 1) {
        modifiedOnce = false;
    }
}

void closeLog() {
    if (pttLogWrite != 0) {
        endLoggingThread();
    }
    stopQueueing();
    closeLogFile();
}

bool bDrainLog(int nMaxMillis) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(nMaxMillis);
    const std::uint64_t nWanted = logQueueCounts().nQueued;
    while (logQueueCounts().nWritten < nWanted) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return false;
        }
        std::this_thread::sleep_for(kDrainPollPause);
    }
    return true;
}

bool bIsSimpleLogging() {
    return bSimpleLogging;
}

void printchars(const char* bytes, int len) {
    writeToLog(false, "%s", printableStr(bytes, len, asciiAndDecimal).c_str());
}

void printrawchars(const char* bytes, int len) {
    writeToLog(false, "%s", printableStr(bytes, len, allHex).c_str());
}
