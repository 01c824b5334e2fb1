/// The loop that is the relay's life after start-up. Main thread only.
#pragma once

#include <sys/epoll.h>

/// Runs passes until the process is asked to end.
void runEventLoop();

/// One pass: upkeep, a wait of at most 500 ms, every ready descriptor in turn, timers.
void runOnePass();

/// Offers one event to the handlers; the first that owns its descriptor handles it. A link to the
/// connection server on which a send failed meanwhile is taken down afterwards. `nIndex` counts the
/// events of this pass. Stale events are passed over.
void offerToHandlers(epoll_event& epe, int nIndex);
