#include "base/clock.h"

#include <atomic>

namespace {

constexpr std::time_t kRealTime = -1;

/// What tests have set; `kRealTime` otherwise. Atomic because the logging thread may ask as well.
std::atomic<std::time_t> tSetByTest{kRealTime};

}  // namespace

std::time_t nowSecs() {
    const std::time_t tSet = tSetByTest.load(std::memory_order_relaxed);
    return tSet == kRealTime ? std::time(nullptr) : tSet;
}

void setClockForTest(std::time_t tNow) {
    tSetByTest = tNow;
}

void advanceClockForTest(std::time_t nSecs) {
    tSetByTest += nSecs;
}

void resetClockForTest() {
    tSetByTest = kRealTime;
}
