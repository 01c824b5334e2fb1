/// The event loop, which runs from the end of start-up to the exit of the process.
/// Main thread only.
#pragma once

#include <sys/epoll.h>

/// Runs passes until the process is asked to exit.
void runEventLoop();

/// One pass: housekeeping, a wait of at most 500 ms, every ready descriptor in turn, timers.
void runOnePass();

/// Offers one event to the handlers; the first that owns its descriptor handles it. If a send to
/// the connection server failed meanwhile, the link is taken down afterwards. `nIndex` is the
/// number of the event in this pass. Stale events are ignored. May remove clients.
void offerToHandlers(epoll_event& epe, int nIndex);
