#include "relayserver/peers/relay_peer.h"

#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using testing::IsEmpty;

namespace {

class RelayPeer : public EngineTest {
  protected:
    RelayPeer() : peer(addAuthClient(8)) {}

    static sockaddr_in siAddress(unsigned short nPort) {
        sockaddr_in siResult{};
        siResult.sin_family = AF_INET;
        siResult.sin_port = htons(nPort);
        return siResult;
    }

    const Peer peer;
};

TEST_F(RelayPeer, IsAClientThatReceivesAndSourcesAudioOfProgram0) {
    EXPECT_FALSE(bIsRelayPeer(authClient(8)));
    authClient(8).StartRcvAudio(0, siAddress(1));
    EXPECT_FALSE(bIsRelayPeer(authClient(8)));
    authClient(8).StartSrcAudio(1, siAddress(2));
    EXPECT_FALSE(bIsRelayPeer(authClient(8)));
    authClient(8).StartSrcAudio(0, siAddress(2));
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    authClient(8).StopRcvAudio(0);
    EXPECT_FALSE(bIsRelayPeer(authClient(8)));
}

TEST_F(RelayPeer, MarkingStartsAudioAndEnlargesTheSendBuffer) {
    MarkAsRelay(authClient(8));
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_FALSE(authClient(8).bIsRcvAudio(1));
    EXPECT_FALSE(authClient(8).bIsSrcAudio(1));
    EXPECT_EQ(1U, nLoggedContaining("Increased send buffer size to "));
    EXPECT_EQ(1U, nLoggedContaining("(of 8388608 requested)"));
}

TEST_F(RelayPeer, MarkingTwiceChangesNothing) {
    MarkAsRelay(authClient(8));
    loggedLines().clear();
    authClient(8).StartRcvAudio(0, siAddress(6900));
    MarkAsRelay(authClient(8));
    EXPECT_THAT(loggedLines(), IsEmpty());
    sockaddr_in siLeft{};
    authClient(8).GetAudioRcvAddress(0, siLeft);
    EXPECT_EQ(htons(6900), siLeft.sin_port);
}

TEST_F(RelayPeer, MarkingKeepsAnAddressThatIsKnownAlready) {
    authClient(8).StartSrcAudio(0, siAddress(6900));
    MarkAsRelay(authClient(8));
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    sockaddr_in siLeft{};
    authClient(8).GetAudioSrcAddress(0, siLeft);
    EXPECT_EQ(htons(6900), siLeft.sin_port);
}

}  // namespace
