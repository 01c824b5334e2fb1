#include "relayserver/clients/peer_mark.h"

#include <gtest/gtest.h>

namespace {

TEST(PeerMark, IsReceivingAndSendingProgram0) {
    Orvex::RelayClient client;
    EXPECT_FALSE(bIsRelayPeer(client));
    client.StartRcvAudio(0, sockaddr_in{});
    EXPECT_FALSE(bIsRelayPeer(client));
    client.StartSrcAudio(0, sockaddr_in{});
    EXPECT_TRUE(bIsRelayPeer(client));
    client.StopRcvAudio(0);
    EXPECT_FALSE(bIsRelayPeer(client));
}

TEST(PeerMark, IsNotGivenByOtherPrograms) {
    Orvex::RelayClient client;
    for (unsigned nProgram = 1; nProgram < Orvex::RelayClient::kAudioPrograms; ++nProgram) {
        client.StartRcvAudio(nProgram, sockaddr_in{});
        client.StartSrcAudio(nProgram, sockaddr_in{});
    }
    EXPECT_FALSE(bIsRelayPeer(client));
}

}  // namespace
