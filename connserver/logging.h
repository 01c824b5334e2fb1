/// The log. `writeToLog` formats a line and hands it to the logging thread, which writes it to the
/// file named by the marker (see log_file.h) or, in simple logging, to standard output. The caller
/// never waits for a file.
///
///   before setupLogging  ->  running  ->  closed by closeLog  (and may be set up again)
///
/// While logging does not run (before, after, or because it could not be set up) lines go to
/// standard output at once. A process may end by `exit` in any state; `bDrainLog` first saves what
/// is queued.
#pragma once

#include <string>

/// Starts logging: to standard output if `bSimpleOnly`, else to the file that the marker in
/// `sLogDirIn` names (a plain prefix, so it ends in "/"). False when the marker cannot be opened or
/// the thread not be started, which is also said on standard output. A log file that cannot be
/// opened is no failure: lines go to standard output until a rotation finds one. Main thread.
bool setupLogging(bool bSimpleOnly, std::string sLogDirIn);

/// Logs a text made as printf does; the caller ends it with "\n". With `timePrefix` it begins with
/// the local time as in "09:05:01 PM - ". Texts may have any length. Any thread.
void writeToLog(bool timePrefix, const char* format, ...) __attribute__((format(printf, 2, 3)));

/// Reopens the log by reading the marker again, once a day in a call between 00:05:00 and 00:05:09
/// local time; no call in these seconds, no rotation that day. Called on every pass of the main
/// loop and cheap unless the second has changed. Main thread.
void loggingTimeCheck();

/// Ends the logging thread, writes what is still queued and closes the file. Says on standard
/// output what it does. Harmless when logging does not run. Main thread.
void closeLog();

/// Waits until every line queued so far is written and flushed, but at most `nMaxMillis`
/// milliseconds; false if that was too short. For ends of the process that skip `closeLog`.
[[nodiscard]] bool bDrainLog(int nMaxMillis);

/// Whether simple logging was chosen.
bool bIsSimpleLogging();

/// Logs `len` bytes without a time: printable characters as they are, the others as "[13]".
void printchars(const char* bytes, int len);

/// Logs `len` bytes without a time, each as in "[0d]".
void printrawchars(const char* bytes, int len);
