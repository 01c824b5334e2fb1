/// Where log lines end up: standard output, or the file that the marker file names.
///
/// The marker "sys/currentlyusedlogfile.name" in the logging directory holds in its first line the
/// name, relative to that directory, of the log file to append to. An outside job writes it; it is
/// only read here, at most 1023 characters of it.
///
/// A file holds at most 60,000,000 lines, then one notice, then nothing more until another is
/// opened. Without an open file lines go to standard output, without that limit.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

enum class LogFileResult {
    kOpened,     ///< Lines go to the file that the marker names, and its line count is 0.
    kNoMarker,   ///< The marker could not be opened; nothing has changed.
    kNoLogFile,  ///< The file it names could not be opened; nothing has changed, `errno` tells why.
};

/// Reads the marker in `sDirectory` (used as a plain prefix, so it ends in "/") and opens the file
/// that it names. Only when that has worked is a file already open closed and replaced. Main
/// thread.
[[nodiscard]] LogFileResult openLogFile(const std::string& sDirectory);

/// The name in the marker file as read last. Main thread.
std::string sLogFileName();

/// Writes the lines in order and flushes once. An entry counts as one line whatever newlines it
/// holds. Called by the logging thread, and by the main thread when that has ended.
void writeLogLines(const std::deque<std::string>& lines);

/// Flushes and closes the log file, if one is open. Main thread.
void closeLogFile();

/// Pretends that the current file holds `nLines` lines. Tests only.
void setLineCountForTest(std::int64_t nLines);
