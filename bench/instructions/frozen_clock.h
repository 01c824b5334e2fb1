/// This program's clocks are frozen, so that no pass of the event loop hits a second in which
/// timers are due: it would have more to do than the others. Reading them costs a function call,
/// and these calls can be counted.
///
/// The source file of this name replaces `time` and `clock_gettime` in the whole process.
#pragma once

/// What the clocks show, in seconds since the epoch: a second without timers.
constexpr long kFrozenSecs = 1700000001;
