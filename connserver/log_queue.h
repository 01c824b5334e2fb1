/// The queue of lines between `writeToLog` and the logging thread. Lines enter from any thread and
/// leave in the same order. The queue is never destroyed, because a logging thread may still be
/// waiting on it while `exit` runs. Any thread, unless stated otherwise.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

/// Opens the queue, so that it accepts lines. Call before the logging thread starts.
void openLogQueue();

/// Closes the queue, so that it accepts no more lines, and returns those not yet fetched. Every
/// line that `bQueueLogLine` accepted has either been fetched or is among them.
std::deque<std::string> closeLogQueue();

/// The most lines held while the disk hangs; further ones are counted and dropped.
constexpr std::size_t kMaxQueuedLogLines = 200'000;

/// Moves a finished line into the queue and wakes the logging thread; if the queue is full, only
/// counts it. False, with `sLine` unchanged, when the queue is not open.
[[nodiscard]] bool bQueueLogLine(std::string& sLine);

/// The result of a wait for lines.
enum class LogWait {
    kLines,    ///< Lines may be there to be fetched.
    kStopped,  ///< The logging thread must end, without fetching what is left.
    kFailed,   ///< The wait failed, for example because a signal interrupted it.
};

/// Sleeps until a line is queued or `stopLogWaits` is called. Logging thread.
[[nodiscard]] LogWait awaitLogLine();

/// Ends the logging thread's current or next wait, and with it the thread. Unlike a cancelled
/// thread it ends only where it holds no line, no semaphore and no lock of a stream.
void stopLogWaits();

/// Moves all queued lines into `batch`, which must be empty, and adds a line about lost ones, if
/// any. There may be none: one call also fetches lines whose wake-up is still pending.
void fetchLogLines(std::deque<std::string>& batch);

/// Counts `nLines` fetched lines as written and flushed.
void noteLogLinesWritten(std::size_t nLines);

/// The number of lines waiting to be fetched.
std::size_t nLogQueueSize();

/// Lines accepted into the queue since the process started, and those of them written and flushed.
struct LogQueueCounts {
    std::uint64_t nQueued;
    std::uint64_t nWritten;
};
/// The present counts, both taken at the same moment.
LogQueueCounts logQueueCounts();
