/// Ends the load program when a measurement has become impossible.
#pragma once

namespace Load {

/// Prints the reason, formatted like printf, to standard error and ends the process with status 1.
/// A figure from a run that went wrong is worse than none.
__attribute__((noreturn, format(printf, 1, 2))) void giveUp(const char* sFormat, ...);

}  // namespace Load
