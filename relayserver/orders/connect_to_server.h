/// Brings up the link to the connection server: connect, TLS handshake, challenge, login.
/// Main thread only.
#pragma once

#include <sys/epoll.h>

/// Advances the link and returns its new stage (353 when logged in), or -1 when the attempt failed.
/// - `bWait`: starts an attempt if there is none and waits until the relay is logged in or the
///   attempt has failed, at most 5 s for each event. For start-up, when no other descriptor is
///   watched.
/// - otherwise one step: handles `epe`, an event of the link's socket, or, with null, starts an
///   attempt if there is none.
int ConnectToServer(bool bWait, epoll_event* epe);

/// Starts an attempt if the last one began at least `connectRetry_secs` ago; otherwise logs that it
/// must wait, and leaves it to the timers.
void reconnectUnlessThrottled();

/// Tries one server after another until the relay is logged in. Blocks; returns false if the
/// process is asked to exit first.
[[nodiscard]] bool bConnectToFirstServer();
