#include "relayserver/peers/relay_peer.h"

#include "base/ip_utils.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/peers/register_udp.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using Orvex::RelayClient;
using testing::IsEmpty;

namespace {

class RelayPeer : public PeerTest {
  protected:
    RelayPeer() : peer(addAuthClientAt(8, "127.0.0.7")) {}

    static sockaddr_in siAddress(int nPort) { return siOf("127.0.0.9", nPort); }
    /// Where program `nProgram` goes to, and where it comes from.
    static std::string sReceivesAt(unsigned nProgram) {
        sockaddr_in siResult{};
        authClient(8).GetAudioRcvAddress(nProgram, siResult);
        return sText(siResult);
    }
    static std::string sSendsFrom(unsigned nProgram) {
        sockaddr_in siResult{};
        authClient(8).GetAudioSrcAddress(nProgram, siResult);
        return sText(siResult);
    }
    static std::string sText(const sockaddr_in& siAddress) {
        return sDottedAddress(siAddress) + ":" + std::to_string(nPortOf(siAddress));
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

TEST_F(RelayPeer, IsNoClientThatOnlySourcesOrOnlyReceivesOtherPrograms) {
    for (unsigned nProgram = 1; nProgram < RelayClient::kAudioPrograms; ++nProgram) {
        authClient(8).StartRcvAudio(nProgram, siAddress(1));
        authClient(8).StartSrcAudio(nProgram, siAddress(1));
    }
    authClient(8).StartSrcAudio(0, siAddress(1));
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

TEST_F(RelayPeer, MarkingTakesThePeersOwnAddressAndItsBasePort) {
    setPeerUdpBasePort(authClient(8), 6900);
    MarkAsRelay(authClient(8));
    EXPECT_EQ("127.0.0.7:6900", sReceivesAt(0));
    EXPECT_EQ("127.0.0.7:6900", sSendsFrom(0));
}

TEST_F(RelayPeer, MarkingAPeerWhosePortNoOrderHasNamedLeavesThePortOpen) {
    MarkAsRelay(authClient(8));
    EXPECT_EQ("127.0.0.7:0", sReceivesAt(0));
    EXPECT_EQ("127.0.0.7:0", sSendsFrom(0));
}

TEST_F(RelayPeer, MarkingTwiceChangesNothing) {
    MarkAsRelay(authClient(8));
    loggedLines().clear();
    authClient(8).StartRcvAudio(0, siAddress(6900));
    // A buffer that were small again would be raised a second time.
    const int nSmall = 4096;
    ASSERT_EQ(0, setsockopt(fdOf(8), SOL_SOCKET, SO_SNDBUF, &nSmall, sizeof nSmall));
    MarkAsRelay(authClient(8));
    EXPECT_THAT(loggedLines(), IsEmpty());
    EXPECT_EQ("127.0.0.9:6900", sReceivesAt(0));
}

TEST_F(RelayPeer, MarkingKeepsTheSourceThatIsKnownAlready) {
    authClient(8).StartSrcAudio(0, siAddress(6900));
    MarkAsRelay(authClient(8));
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_EQ("127.0.0.9:6900", sSendsFrom(0));
    EXPECT_EQ("127.0.0.7:0", sReceivesAt(0));
}

TEST_F(RelayPeer, MarkingKeepsTheReceptionThatIsKnownAlready) {
    authClient(8).StartRcvAudio(0, siAddress(6900));
    MarkAsRelay(authClient(8));
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_EQ("127.0.0.9:6900", sReceivesAt(0));
    EXPECT_EQ("127.0.0.7:0", sSendsFrom(0));
}

class PeerPort : public RelayPeer {};

TEST_F(PeerPort, IsKeptInNetworkByteOrder) {
    setPeerUdpBasePort(authClient(8), 6900);
    EXPECT_EQ(htons(6900), authClient(8).nRelayUdpBasePort);
}

TEST_F(PeerPort, EachProgramIsTwoPortsAboveTheOneBefore) {
    setPeerUdpBasePort(authClient(8), 6900);
    for (unsigned nProgram = 0; nProgram < RelayClient::kAudioPrograms; ++nProgram) {
        EXPECT_EQ("127.0.0.7:" + std::to_string(6900 + 2 * nProgram),
                  sText(siPeerAudioAddress(authClient(8), nProgram)));
    }
}

TEST_F(PeerPort, WrapsAtSixteenBits) {
    setPeerUdpBasePort(authClient(8), 65532);
    EXPECT_EQ("127.0.0.7:65534", sText(siPeerAudioAddress(authClient(8), 1)));
    EXPECT_EQ("127.0.0.7:0", sText(siPeerAudioAddress(authClient(8), 2)));
    EXPECT_EQ("127.0.0.7:6", sText(siPeerAudioAddress(authClient(8), 5)));
    setPeerUdpBasePort(authClient(8), 70000);
    EXPECT_EQ(htons(70000 - 65536), authClient(8).nRelayUdpBasePort);
}

TEST_F(PeerPort, ZeroSaysNothing) {
    setPeerUdpBasePort(authClient(8), 6900);
    MarkAsRelay(authClient(8));
    for (const int nNothing : {0, 65536, -65536}) {
        setPeerUdpBasePort(authClient(8), nNothing);
        EXPECT_EQ(htons(6900), authClient(8).nRelayUdpBasePort) << nNothing;
        EXPECT_EQ("127.0.0.7:6900", sReceivesAt(0)) << nNothing;
    }
}

TEST_F(PeerPort, MovesWhereRegisteredProgramsAreReceivedAndNothingElse) {
    authClient(8).StartRcvAudio(1, siAddress(1111));
    authClient(8).StartSrcAudio(3, siAddress(3333));
    setPeerUdpBasePort(authClient(8), 6900);
    EXPECT_EQ("127.0.0.7:6902", sReceivesAt(1));
    EXPECT_EQ("127.0.0.9:3333", sSendsFrom(3));
    for (const unsigned nProgram : {0U, 2U, 3U, 4U, 5U}) {
        EXPECT_FALSE(authClient(8).bIsRcvAudio(nProgram));
    }
    for (const unsigned nProgram : {0U, 1U, 2U, 4U, 5U}) {
        EXPECT_FALSE(authClient(8).bIsSrcAudio(nProgram));
    }
}

class Reregistration : public RelayPeer {
  protected:
    Reregistration() { openOwnAudio(); }

    static void giveTicket(int nClientID) {
        const unsigned char achTicket[16] = {1};
        authClient(nClientID).SetTicket(achTicket, sizeof achTicket);
    }
};

TEST_F(Reregistration, ReachesEveryPeerAndNobodyElse) {
    const AudioPorts first;
    const AudioPorts second;
    const AudioPorts station;
    const Peer peer9 = addAuthClientAt(9, "127.0.0.1");
    const Peer peer10 = addAuthClientAt(10, "127.0.0.1");
    const Peer peer11 = addAuthClientAt(11, "127.0.0.1");
    setPeerUdpBasePort(authClient(9), first.nBase());
    setPeerUdpBasePort(authClient(10), station.nBase());
    setPeerUdpBasePort(authClient(11), second.nBase());
    MarkAsRelay(authClient(9));
    MarkAsRelay(authClient(11));
    for (const int nClientID : {8, 9, 10, 11}) {
        giveTicket(nClientID);
    }
    loggedLines().clear();
    EXPECT_TRUE(ReregisterRelayPeers());
    EXPECT_EQ("reregistering all relay peers\n", loggedLines().front());
    EXPECT_EQ(2U, nLoggedContaining("debug: registering udp with relay peer"));
    for (int nProgram = 0; nProgram < kAudioPrograms; ++nProgram) {
        for (const AudioPorts* const pPorts : {&first, &second}) {
            const std::vector<std::string> datagrams = pPorts->received(nProgram);
            ASSERT_EQ(1U, datagrams.size());
            EXPECT_EQ(7, datagrams[0][21]) << "receives, sends, calls back";
        }
        EXPECT_THAT(station.received(nProgram), IsEmpty());
    }
}

TEST_F(Reregistration, WithoutClientsOnlySaysSo) {
    const Peer server = openLink();
    EXPECT_TRUE(ReregisterRelayPeers());
    EXPECT_THAT(loggedLines(), testing::ElementsAre("reregistering all relay peers\n"));
    EXPECT_THAT(server.images(), IsEmpty());
}

TEST_F(RelayPeer, APeerThatComesBackUnderItsIdLeavesNothingOfTheOld) {
    const Peer old = addAuthClientAt(8, "127.0.0.7");
    setPeerUdpBasePort(authClient(8), 6900);
    MarkAsRelay(authClient(8));
    DeleteClient(ctAuthClientTable, authClient(8), LeaveReason::kLoggedOut);
    const Peer again = addAuthClientAt(8, "127.0.0.7");
    EXPECT_FALSE(bIsRelayPeer(authClient(8)));
    EXPECT_EQ(0, authClient(8).nRelayUdpBasePort);
    EXPECT_EQ("", sTicketOf(authClient(8)));
}

}  // namespace
