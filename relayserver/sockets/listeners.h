/// Every listening socket of the relay. Main thread only.
#pragma once

#include "relayserver/settings/settings.h"

/// The plain and the TLS TCP listener; 0 while there is none.
extern int connect_listen_sockfd;
extern int ssl_listen_sockfd;

/// Per audio program: the audio socket, and with `bFecEnable` its two companions for
/// forward error correction. -1 while there is none.
extern int udp_listen_sockfd[kAudioPrograms];
extern int udp_fec1_sockfd[kAudioPrograms];
extern int udp_fec2_sockfd[kAudioPrograms];

/// What opening a listener came to. `kExitRequested`: the process was asked to end while a busy
/// port was being retried.
enum class ListenOutcome { kListening, kFailed, kExitRequested };

/// Opens the plain listener on `msg_port`, and the TLS listener on `ssl_msg_port` if that is set.
/// A busy port is retried every 10 s; any other failure is logged.
[[nodiscard]] ListenOutcome openPlainListener();
[[nodiscard]] ListenOutcome openTlsListener();

/// Opens the audio sockets and, while `bFecEnable` holds, their companions; false, logged, when an
/// audio socket cannot be had. A companion that cannot be had ends FEC for all programs.
[[nodiscard]] bool bOpenAudioSockets();

/// Lets the event loop wait for new connections.
void watchListeners();

/// Closes the TCP listeners and the audio sockets.
void closeListeners();

/// Closes every socket and forgets it.
void resetListenersForTest();
