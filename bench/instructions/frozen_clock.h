/// This program's clocks stand still, so that no pass of the event loop meets a second of its own
/// in which timers are due: it would have more to do than the others. Asking them costs what a call
/// costs; the calls themselves can be counted.
///
/// `time` and `clock_gettime` of the whole process are those of the source file of this name.
#pragma once

/// What the clocks show, in seconds since the epoch: a second without timers.
constexpr long kFrozenSecs = 1700000001;
