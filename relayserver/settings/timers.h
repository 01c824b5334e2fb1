/// When the periodic work was last done. Main thread only.
#pragma once

#include <ctime>

/// Last heartbeat to the connection server, last burst of heartbeats to the clients, last round of
/// re-registrations with relay peers; at first the time of process start.
extern std::time_t tLastHeartbeat;
extern std::time_t tLastHeartbeatBurst;
extern std::time_t ttLastUdpReregister;

/// The work in question was done at `ttNow`.
void noteHeartbeat(std::time_t ttNow);
void noteHeartbeatBurst(std::time_t ttNow);
void noteUdpReregister(std::time_t ttNow);

/// Moves times in the future back to `ttNow`: a clock that was set back must not stop the timers.
void clampTimersToNow(std::time_t ttNow);

/// Back to the state at process start.
void resetTimersForTest();
