/// The time-driven work at the head and at the tail of each pass. Main thread only.
#pragma once

#include <ctime>

/// Seconds of silence after which an admitted client, or the connection server, is given up.
constexpr double dIdleTimeOut = 15.0;
/// Seconds that a TLS handshake or a client without a valid ticket may take.
constexpr double dLogInTimeOut = 15.0;
/// Seconds that a connect to another relay may take.
constexpr double dPeerConnectTimeOut = 5.0;
/// Heartbeat period, and the period over which input is measured (seconds).
constexpr double dHeartbeatPeriod = 3.0;
/// Input limit of an admitted client that is no relay peer.
constexpr unsigned kMaxAllowedTcpBytesPerSecond = 2000000;

/// Times of this pass and of the one before it.
extern std::time_t ttThisLoop;
extern std::time_t ttLastLoop;
/// Last heartbeat to the connection server, last burst of heartbeats to the clients.
extern std::time_t tLastHeartbeat;
extern std::time_t tLastHeartbeatBurst;

/// Ready descriptors of the last pass, and their running averages over about a thousand and a
/// million passes.
extern double epoll_load_avg_1;
extern double epoll_load_avg_1K;
extern double epoll_load_avg_1M;

/// Looks after the database, the log file, the archive, the list of losses and paused listeners;
/// decides whether the timers run at the end of this pass.
void headOfPass();

/// Takes the number of ready descriptors into the load averages.
void noteLoad(int nReady);

/// Runs the timers if this pass is the first of a second divisible by four. May remove clients.
void tailOfPass();

/// A clock that was set back must not stop the timers: those in the future start now.
void clampTimersToNow(std::time_t ttNow);

/// Back to the state at process start.
void resetHousekeepingForTest();
