#include "bench/instructions/still_clock.h"

#include <ctime>

extern "C" std::time_t time(std::time_t* pTime) noexcept {
    if (pTime != nullptr) {
        *pTime = kStillSecs;
    }
    return kStillSecs;
}

extern "C" int clock_gettime(clockid_t /*clock*/, timespec* pTime) noexcept {
    *pTime = {kStillSecs, 0};
    return 0;
}
