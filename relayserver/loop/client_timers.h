/// The timers of connected clients. Each walks one table; all may remove clients. Main thread only.
#pragma once

#include <ctime>

/// Input limit of an admitted client that is not a relay peer.
constexpr unsigned kMaxAllowedTcpBytesPerSecond = 2000000;

/// Drops admitted clients that were silent for more than 15 s, after a notice to them, and reports
/// them to the connection server.
void dropIdleClients(std::time_t ttNow);

/// Gives up connects to other relays that have taken more than 5 s.
void cancelStaleConnects(std::time_t ttNow);

/// Drops connections whose TLS handshake takes more than 15 s from accept.
void dropStalledHandshakes(std::time_t ttNow);

/// Drops connections that have presented no valid ticket within 15 s from accept.
void dropLooseClients(std::time_t ttNow);

/// Drops clients that sent more than the input limit since the last burst, and sends the others a
/// heartbeat; relay peers have no input limit.
void checkInputAndSendHeartbeats(std::time_t ttNow);
