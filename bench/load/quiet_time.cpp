#include "bench/load/quiet_time.h"

#include <chrono>
#include <cmath>

namespace Load {

double dSecondsUntilQuiet(double dSeconds) {
    constexpr double dPeriod = 4.0;
    constexpr double dBurst = 0.2;
    const std::chrono::duration<double> sinceEpoch =
        std::chrono::system_clock::now().time_since_epoch();
    const double dNow = std::fmod(sinceEpoch.count(), dPeriod);
    if (dNow < dBurst) {
        return dBurst - dNow;
    }
    return dNow + dSeconds < dPeriod ? 0 : dPeriod - dNow + dBurst;
}

}  // namespace Load
