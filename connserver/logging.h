/// The log. `writeToLog` formats a line and passes it to the logging thread, which writes it to the
/// file named by the marker (see log_file.h) or, in simple logging, to standard output. The caller
/// never waits for a file.
///
///   before setupLogging  ->  running  ->  closed by closeLog  (and may be set up again)
///
/// While logging is not running (before, after, or because it could not be set up) lines go
/// directly to standard output. A process may call `exit` in any state; `bDrainLog` first has the
/// queued lines written.
#pragma once

#include <string>

/// Starts logging: to standard output if `bSimpleOnly`, otherwise to the file that the marker in
/// `sLogDirIn` names (a plain prefix, so it ends in "/"). Returns false if the marker cannot be
/// opened or the thread cannot be started, which is also reported on standard output. A log file
/// that cannot be opened is not a failure: lines go to standard output until a rotation opens one.
/// Main thread.
bool setupLogging(bool bSimpleOnly, std::string sLogDirIn);

/// Logs a text formatted as by printf; the caller ends it with "\n". With `timePrefix` it begins
/// with the local time as in "09:05:01 PM - ". Texts may have any length. Any thread.
void writeToLog(bool timePrefix, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Reopens the log by reading the marker again, once a day in a call between 00:05:00 and 00:05:09
/// local time; without a call in these seconds there is no rotation that day. A failure is logged,
/// and the old file stays open. Called on every pass of the main loop and cheap unless the second
/// has changed. Main thread.
void loggingTimeCheck();

/// Ends the logging thread, writes what is still queued and closes the file, and reports its
/// progress on standard output. Has no effect when logging is not running. Main thread.
void closeLog();

/// Waits until every line queued so far has been written and flushed, but for at most `nMaxMillis`
/// milliseconds; false if that was too short. For exits that skip `closeLog`. Any thread.
[[nodiscard]] bool bDrainLog(int nMaxMillis);

/// Whether simple logging was chosen. Main thread, and others once logging is set up.
bool bIsSimpleLogging();

/// Logs the `len` bytes at `bytes` without a time: printable characters as they are, the others as
/// "[13]". Any thread.
void printchars(const char* bytes, int len);

/// Logs the `len` bytes at `bytes` without a time, each as in "[0d]". Any thread.
void printrawchars(const char* bytes, int len);
