/// The only source of the current time. All code that compares times reads these clocks, so that a
/// test can set any time without waiting for it. All functions may be called from any thread.
#pragma once

#include <chrono>
#include <ctime>

/// A moment in UTC, in microseconds since 1970-01-01 00:00:00.
using utc_time_t = std::chrono::sys_time<std::chrono::microseconds>;

/// Wall-clock time in whole seconds since the epoch (UTC), or the time a test has set.
std::time_t nowSecs();

/// Wall-clock time in microseconds, or the time a test has set.
utc_time_t ptNow();

/// A monotonic clock, unaffected when the wall clock is set: for intervals, not for dates.
std::chrono::steady_clock::time_point steadyNow();

/// Sets the wall clock to `tNow`, in seconds since the epoch, and stops both clocks until they are
/// advanced or reset. Tests only.
void setClockForTest(std::time_t tNow);

/// Advances both clocks, which `setClockForTest` has stopped, by `nSecs` seconds or by `duration`.
/// Tests only.
void advanceClockForTest(std::time_t nSecs);
void advanceClockForTest(std::chrono::microseconds duration);

/// Both clocks show the real time again. Tests only.
void resetClockForTest();
