#include "relayserver/settings/servers.h"

std::queue<std::string> serverQ;

void addServer(const std::string& sName) {
    serverQ.push(sName);
}

void SwitchServers() {
    if (serverQ.empty()) {
        return;
    }
    serverQ.push(serverQ.front());
    serverQ.pop();
}

void resetServersForTest() {
    serverQ = {};
}
