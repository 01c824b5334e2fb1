#include "bench/load/pace.h"

#include <sys/timerfd.h>
#include <unistd.h>

#include <cmath>

#include "bench/load/give_up.h"

namespace Load {

namespace {

constexpr std::int64_t kNsPerSec = 1'000'000'000;

}  // namespace

PaceTimer::PaceTimer() : fdTimer(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC)) {
    if (fdTimer < 0) {
        giveUp("cannot create a timer");
    }
}

PaceTimer::~PaceTimer() {
    close(fdTimer);
}

void PaceTimer::start(std::int64_t nIntervalNs) {
    itimerspec spec{};
    spec.it_interval.tv_sec = nIntervalNs / kNsPerSec;
    spec.it_interval.tv_nsec = nIntervalNs % kNsPerSec;
    spec.it_value = spec.it_interval;
    timerfd_settime(fdTimer, 0, &spec, nullptr);
}

void PaceTimer::stop() {
    const itimerspec spec{};
    timerfd_settime(fdTimer, 0, &spec, nullptr);
}

std::int64_t PaceTimer::nBeats() {
    std::uint64_t nExpirations = 0;
    const ssize_t nRead = read(fdTimer, &nExpirations, sizeof nExpirations);
    return nRead == sizeof nExpirations ? static_cast<std::int64_t>(nExpirations) : 0;
}

std::int64_t nMessageIntervalNs(int nFanout, double dDeliveriesPerSec) {
    return std::llround(static_cast<double>(kNsPerSec) * nFanout / dDeliveriesPerSec);
}

}  // namespace Load
