/// The connection servers, in the order in which they are tried. Main thread only.
#pragma once

#include <queue>
#include <string>

/// Host names in order of preference; the front is in use or is tried next.
extern std::queue<std::string> serverQ;

/// Puts a server behind those that are known.
void addServer(const std::string& sName);

/// Moves the server in front to the back.
void SwitchServers();

/// Back to the state at process start.
void resetServersForTest();
