/// The one place that tells the time. Everything that compares times asks here, so that a test can
/// stand anywhere in time without waiting.
#pragma once

#include <ctime>

/// Wall-clock time in whole seconds since the epoch (UTC), or the time a test has set. Any thread.
std::time_t nowSecs();

/// From now on `nowSecs` answers `tNow`, until changed or reset. Tests only.
void setClockForTest(std::time_t tNow);

/// Moves a clock set by `setClockForTest` by `nSecs` seconds. Tests only.
void advanceClockForTest(std::time_t nSecs);

/// `nowSecs` tells the real time again. Tests only.
void resetClockForTest();
