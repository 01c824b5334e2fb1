/// The processor time and the memory of another process, as the kernel counts them.
#pragma once

#include <ctime>

#include <sys/types.h>
#include <cstdint>

namespace Load {

/// The processor time of a process, all its threads together, user and system.
class CpuClock {
  public:
    /// Ends this program if there is no such process.
    explicit CpuClock(pid_t nPid);
    /// Nanoseconds used so far; the running slice of a thread is counted.
    [[nodiscard]] std::int64_t nNanoseconds() const;

  private:
    clockid_t clockOfProcess{};
};

/// Resident bytes of the process; 0 when that cannot be read.
[[nodiscard]] std::int64_t nResidentBytes(pid_t nPid);

/// Monotonic time in nanoseconds.
[[nodiscard]] std::int64_t nMonotonicNs();

}  // namespace Load
