/// The connection servers, in the order in which they are tried. Main thread only.
#pragma once

#include <queue>
#include <string>

/// Host names in order of preference; the one at the front is in use or is tried next.
extern std::queue<std::string> serverQ;

/// Adds a server at the back.
void addServer(const std::string& sName);

/// Moves the server at the front to the back; does nothing if there is none.
void SwitchServers();

/// Back to the state at process start.
void resetServersForTest();
