/// Time limits and periods, all in whole seconds of the clock.
#pragma once

#include <ctime>

/// The timers run on seconds that are divisible by this.
constexpr int kTickSecs = 4;
/// Silence after which an admitted client, or the link to the connection server, is dropped.
constexpr double dIdleTimeOut = 15.0;
/// Limit for a TLS handshake, and for a client to present a valid ticket.
constexpr double dLogInTimeOut = 15.0;
/// Limit for a connect to another relay.
constexpr double dPeerConnectTimeOut = 5.0;
/// Heartbeat period, and the period over which input is measured.
constexpr double dHeartbeatPeriod = 3.0;
/// The period of the limits on connections per address and log-ins per id.
constexpr int kPeriodNewConnects = 10;
/// Time between two rounds in which relay peers are re-registered.
constexpr int kUdpReregisterPeriod = 240;
