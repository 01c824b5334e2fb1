/// The destination of log lines: standard output, or the file that the marker file names.
///
/// The marker "sys/currentlyusedlogfile.name" in the logging directory holds in its first line the
/// name, relative to that directory, of the log file to append to. An external job writes it; here
/// at most 1023 characters of it are read.
///
/// At most 60,000,000 lines are written to a file, then one notice, then nothing until the next one
/// is opened. Without an open file lines go to standard output, without a limit.
#pragma once

#include <cstdint>
#include <deque>
#include <string>

enum class LogFileResult {
    kOpened,     ///< Lines go to the file that the marker names, and its line count is 0.
    kNoMarker,   ///< The marker could not be opened; nothing has changed.
    kNoLogFile,  ///< The file it names could not be opened; nothing has changed, `errno` says why.
};

/// Reads the marker in `sDirectory` (used as a plain prefix, so it ends in "/") and opens the file
/// that it names. Only if that succeeds is a file already open closed and replaced. Main thread.
[[nodiscard]] LogFileResult openLogFile(const std::string& sDirectory);

/// The name last read from the marker file; empty before. Main thread.
std::string sLogFileName();

/// Writes `lines` in order and flushes once. An entry counts as one line, however many newlines it
/// contains. Lines that cannot be written are lost. Called by the logging thread, and by the main
/// thread after that has ended.
void writeLogLines(const std::deque<std::string>& lines);

/// Flushes and closes the log file, if one is open. Main thread.
void closeLogFile();

/// Sets the number of lines counted for the current file. Tests only.
void setLineCountForTest(std::int64_t nLines);
