#include "base/clock.h"

#include <atomic>
#include <cstdint>
#include <limits>

using std::chrono::microseconds;
using std::chrono::steady_clock;

namespace {

constexpr std::int64_t kRealTime = std::numeric_limits<std::int64_t>::min();

/// The time that a test has set, in microseconds since the epoch; `kRealTime` otherwise. Atomic
/// because other threads read it as well.
std::atomic<std::int64_t> nWallMicrosSetByTest{kRealTime};
/// The monotonic clock of tests; used only while a test has set the wall clock.
std::atomic<std::int64_t> nSteadyMicrosOfTest{0};

}  // namespace

std::time_t nowSecs() {
    const std::int64_t nMicros = nWallMicrosSetByTest.load(std::memory_order_relaxed);
    return nMicros == kRealTime ? std::time(nullptr) : nMicros / std::micro::den;
}

utc_time_t ptNow() {
    const std::int64_t nMicros = nWallMicrosSetByTest.load(std::memory_order_relaxed);
    return nMicros == kRealTime ? std::chrono::floor<microseconds>(std::chrono::system_clock::now())
                                : utc_time_t(microseconds(nMicros));
}

steady_clock::time_point steadyNow() {
    return nWallMicrosSetByTest.load(std::memory_order_relaxed) == kRealTime
               ? steady_clock::now()
               : steady_clock::time_point(microseconds(nSteadyMicrosOfTest.load()));
}

void setClockForTest(std::time_t tNow) {
    nWallMicrosSetByTest = tNow * std::micro::den;
}

void advanceClockForTest(std::time_t nSecs) {
    advanceClockForTest(std::chrono::seconds(nSecs));
}

void advanceClockForTest(microseconds duration) {
    nSteadyMicrosOfTest += duration.count();
    nWallMicrosSetByTest += duration.count();
}

void resetClockForTest() {
    nWallMicrosSetByTest = kRealTime;
}
