/// The timers of the link to the connection server. Main thread only.
#pragma once

#include <ctime>

/// Maintains the link at `ttNow`: drops a silent one, sends heartbeats on a working one, or tries
/// to reconnect. After `nMaxTimeAwayFromCS` seconds without a server, drops all clients and accepts
/// none until a server is back. May remove clients.
void lookAfterLink(std::time_t ttNow);
