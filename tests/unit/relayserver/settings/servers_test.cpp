#include "relayserver/settings/servers.h"

#include "tests/unit/relayserver/engine_fixture.h"

namespace {

using Servers = EngineTest;

TEST_F(Servers, SwitchServersMovesTheFrontToTheBack) {
    for (const char* sServer : {"first", "second", "third"}) {
        serverQ.emplace(sServer);
    }
    SwitchServers();
    EXPECT_EQ("second", serverQ.front());
    EXPECT_EQ("first", serverQ.back());
    EXPECT_EQ(3U, serverQ.size());
}

TEST_F(Servers, SwitchServersLeavesASingleServerInPlace) {
    serverQ.emplace("only");
    SwitchServers();
    EXPECT_EQ("only", serverQ.front());
    EXPECT_EQ(1U, serverQ.size());
}

TEST_F(Servers, SwitchServersIsHarmlessWithoutServers) {
    SwitchServers();
    EXPECT_TRUE(serverQ.empty());
}

TEST_F(Servers, AreTriedInTheOrderInWhichTheyWereAdded) {
    addServer("primary");
    addServer("backup");
    EXPECT_EQ("primary", serverQ.front());
    EXPECT_EQ("backup", serverQ.back());
}

}  // namespace
