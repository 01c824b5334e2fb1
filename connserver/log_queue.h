/// The lines on their way from `writeToLog` to the logging thread. Lines enter from any thread and
/// leave in the same order. The queue lives as long as the process and is never destroyed, so that
/// a logging thread that is still waiting cannot lose it under `exit`.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

/// From now on the queue takes lines. Call before the logging thread starts.
void openLogQueue();

/// Ends the taking of lines and hands over those that nobody has fetched. Every line that
/// `bQueueLogLine` took is either fetched already or among them.
std::deque<std::string> closeLogQueue();

/// What a disk that hangs can make us hold; lines beyond are counted instead of kept.
constexpr std::size_t kMaxQueuedLogLines = 200'000;

/// Puts a finished line into the queue and wakes the logging thread. False, with `sLine` untouched,
/// when the queue is not open.
[[nodiscard]] bool bQueueLogLine(std::string& sLine);

enum class LogWait {
    kLines,    ///< Lines may be there to be fetched.
    kStopped,  ///< The logging thread shall end; what is left is not its business any more.
    kFailed,   ///< Waiting failed.
};

/// Sleeps until a line is queued or `stopLogWaits` is called. Logging thread.
[[nodiscard]] LogWait awaitLogLine();

/// Ends the logging thread's present or next wait, and thereby the thread. Asking it takes the
/// place of cancelling it: it ends only where it holds no line, no semaphore and no lock of a
/// stream.
void stopLogWaits();

/// Moves all queued lines into `batch`, which must be empty, and a line about those lost, if any.
/// May find none: one call fetches also those lines whose wake-ups are still to come.
void fetchLogLines(std::deque<std::string>& batch);

/// Notes that `nLines` fetched lines have been written and flushed.
void noteLogLinesWritten(std::size_t nLines);

/// Lines waiting to be fetched.
std::size_t nLogQueueSize();

/// Counts since process start: lines taken into the queue, and those of them written and flushed.
struct LogQueueCounts {
    std::uint64_t nQueued;
    std::uint64_t nWritten;
};
LogQueueCounts logQueueCounts();
