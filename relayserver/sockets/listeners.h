/// Every listening socket of the relay. Main thread only.
#pragma once

#include "relayserver/settings/settings.h"

/// The plain and the TLS TCP listener; 0 while there is none.
extern int connect_listen_sockfd;
extern int ssl_listen_sockfd;

/// Per audio program: the audio socket, and with `bFecEnable` its two sockets for forward error
/// correction (FEC). -1 while there is none.
extern int udp_listen_sockfd[kAudioPrograms];
extern int udp_fec1_sockfd[kAudioPrograms];
extern int udp_fec2_sockfd[kAudioPrograms];

/// The result of opening a listener. `kExitRequested`: the process was asked to exit while a failed
/// bind was being retried.
enum class ListenOutcome { kListening, kFailed, kExitRequested };

/// Opens the plain listener on `msg_port`, and the TLS listener on `ssl_msg_port` if that is set. A
/// failed bind is logged and retried every 10 s; any other failure is logged and final.
[[nodiscard]] ListenOutcome openPlainListener();
[[nodiscard]] ListenOutcome openTlsListener();

/// Opens the audio sockets and, if `bFecEnable` is set, their FEC sockets. False, with the reason
/// logged, if an audio socket cannot be opened; if a FEC socket cannot, FEC is disabled for all
/// programs.
[[nodiscard]] bool bOpenAudioSockets();

/// Makes the TCP listeners non-blocking and adds them to the epoll set.
void watchListeners();

/// Closes the TCP listeners and the audio sockets.
void closeListeners();

/// Closes every socket; back to the state at process start.
void resetListenersForTest();
