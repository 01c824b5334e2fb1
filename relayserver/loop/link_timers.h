/// The timers of the link to the connection server. Main thread only.
#pragma once

#include <ctime>

/// Does what the link needs at `ttNow`: gives up a silent one, keeps a living one alive, or tries
/// to bring it back; after `nMaxTimeAwayFromCS` without a server drops all clients and accepts none
/// until a server is back. May remove clients.
void lookAfterLink(std::time_t ttNow);
