/// Waits until a daemon has finished its deferred work, such as its log lines.
#pragma once

#include <functional>

#include "bench/load/cpu_clock.h"

namespace Load {

/// Waits until a process has used no processor time for some milliseconds. `meanwhile` is called
/// repeatedly and may take a millisecond each time. Ends the program if the process stays busy for
/// seconds.
void awaitIdle(const CpuClock& cpuClock, const std::function<void()>& meanwhile);

}  // namespace Load
