#include "bench/load/await_idle.h"

#include "bench/load/give_up.h"

namespace Load {

namespace {

constexpr std::int64_t kNsPerMs = 1'000'000;
constexpr std::int64_t kIdleNs = 5 * kNsPerMs;
constexpr std::int64_t kTimeoutNs = 10'000 * kNsPerMs;

}  // namespace

void awaitIdle(const CpuClock& cpuClock, const std::function<void()>& meanwhile) {
    const std::int64_t nDeadline = nMonotonicNs() + kTimeoutNs;
    std::int64_t nUsedBefore = 0;
    do {
        nUsedBefore = cpuClock.nNanoseconds();
        for (const std::int64_t nUntil = nMonotonicNs() + kIdleNs; nMonotonicNs() < nUntil;) {
            meanwhile();
        }
        if (nMonotonicNs() > nDeadline) {
            giveUp("the daemon does not become idle");
        }
    } while (cpuClock.nNanoseconds() != nUsedBefore);
}

}  // namespace Load
