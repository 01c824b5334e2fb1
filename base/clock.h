/// The one place that tells the time. Everything that compares times asks here, so that a test can
/// stand anywhere in time without waiting. Any thread may ask.
#pragma once

#include <chrono>
#include <ctime>

/// A moment in UTC, in microseconds since 1970-01-01 00:00:00.
using utc_time_t = std::chrono::sys_time<std::chrono::microseconds>;

/// Wall-clock time in whole seconds since the epoch (UTC), or the time a test has set.
std::time_t nowSecs();

/// Wall-clock time in microseconds, or the time a test has set.
utc_time_t ptNow();

/// A clock that runs on evenly while the wall clock is set: for waiting, not for dates.
std::chrono::steady_clock::time_point steadyNow();

/// From now on the wall clock shows `tNow`, until changed or reset, and the even clock stands
/// still. Tests only.
void setClockForTest(std::time_t tNow);

/// Moves both clocks, stopped by `setClockForTest`, by whole seconds or by any time. Tests only.
void advanceClockForTest(std::time_t nSecs);
void advanceClockForTest(std::chrono::microseconds duration);

/// The clocks tell the real time again. Tests only.
void resetClockForTest();
