#include "bench/load/cpu_clock.h"

#include <unistd.h>

#include <fstream>
#include <string>

#include "bench/load/give_up.h"

namespace Load {

namespace {

constexpr std::int64_t kNsPerSec = 1'000'000'000;

std::int64_t nRead(clockid_t clock) {
    timespec tsNow{};
    if (clock_gettime(clock, &tsNow) != 0) {
        giveUp("the processor clock of the daemon cannot be read; has it ended?");
    }
    return tsNow.tv_sec * kNsPerSec + tsNow.tv_nsec;
}

}  // namespace

CpuClock::CpuClock(pid_t nPid) {
    if (clock_getcpuclockid(nPid, &clockOfProcess) != 0) {
        giveUp("no such process to measure: %d", static_cast<int>(nPid));
    }
}

std::int64_t CpuClock::nNanoseconds() const {
    return nRead(clockOfProcess);
}

std::int64_t nResidentBytes(pid_t nPid) {
    std::ifstream file("/proc/" + std::to_string(nPid) + "/statm");
    std::int64_t nTotalPages = 0;
    std::int64_t nResidentPages = 0;
    file >> nTotalPages >> nResidentPages;
    return nResidentPages * sysconf(_SC_PAGESIZE);
}

std::int64_t nMonotonicNs() {
    return nRead(CLOCK_MONOTONIC);
}

}  // namespace Load
