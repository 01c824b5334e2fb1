/// Waiting until a daemon has done all that it owes, such as the log lines of what it has answered.
#pragma once

#include <functional>

#include "bench/load/cpu_clock.h"

namespace Load {

/// Waits until a process has used no processor time for some milliseconds. `meanwhile` is called
/// over and over and may take a millisecond each time. Ends the program when the process goes on
/// for seconds.
void awaitIdle(const CpuClock& cpuClock, const std::function<void()>& meanwhile);

}  // namespace Load
