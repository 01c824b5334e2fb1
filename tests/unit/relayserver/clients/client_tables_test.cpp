#include "relayserver/clients/client_tables.h"

#include "tests/unit/relayserver/engine_fixture.h"

namespace {

using ClientTables = EngineTest;

TEST_F(ClientTables, AreFourThatKnowNothingOfEachOther) {
    const Peer admitted = addAuthClient(7);
    const Peer loose = addLooseClient();
    const Peer handshaking = addHandshaking();
    EXPECT_EQ(1, ctAuthClientTable.GetSize());
    EXPECT_EQ(1, ctLooseClientTable.GetSize());
    EXPECT_EQ(1, ctSslHandshakingTable.GetSize());
    EXPECT_EQ(0, ctOutboundConnectsPending.GetSize());
    Orvex::RelayClient* pClient = nullptr;
    EXPECT_TRUE(ctAuthClientTable.bFileDescLookUp(fdOf(7), &pClient));
    EXPECT_FALSE(ctLooseClientTable.bFileDescLookUp(fdOf(7), &pClient));
}

}  // namespace
