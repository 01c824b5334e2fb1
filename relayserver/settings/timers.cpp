#include "relayserver/settings/timers.h"

#include <algorithm>

#include "base/clock.h"

std::time_t tLastHeartbeat = nowSecs();
std::time_t tLastHeartbeatBurst = nowSecs();
std::time_t ttLastUdpReregister = nowSecs();

void noteHeartbeat(std::time_t ttNow) {
    tLastHeartbeat = ttNow;
}

void noteHeartbeatBurst(std::time_t ttNow) {
    tLastHeartbeatBurst = ttNow;
}

void noteUdpReregister(std::time_t ttNow) {
    ttLastUdpReregister = ttNow;
}

void clampTimersToNow(std::time_t ttNow) {
    tLastHeartbeat = std::min(tLastHeartbeat, ttNow);
    tLastHeartbeatBurst = std::min(tLastHeartbeatBurst, ttNow);
    ttLastUdpReregister = std::min(ttLastUdpReregister, ttNow);
}

void resetTimersForTest() {
    tLastHeartbeat = nowSecs();
    tLastHeartbeatBurst = nowSecs();
    ttLastUdpReregister = nowSecs();
}
