#include "relayserver/peers/peer_sources.h"

#include "base/ip_utils.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/peers/relay_peer.h"
#include "tests/stubs/allocation_count.h"
#include "tests/unit/relayserver/peers/peer_fixture.h"

using Orvex::RelayClient;

namespace {

class PeerSources : public PeerTest {
  protected:
    static bool bSends(const std::string& sAddress, unsigned nProgram = 0) {
        return bPeerSendsFrom(siOf(sAddress, 0).sin_addr, nProgram);
    }
    static Peer addPeer(int nClientID, const std::string& sAddress) {
        Peer peer = addAuthClientAt(nClientID, sAddress);
        MarkAsRelay(authClient(nClientID));
        return peer;
    }
    static void remove(int nClientID) {
        DeleteClient(ctAuthClientTable, authClient(nClientID), LeaveReason::kLoggedOut);
    }

    /// A peer without a connection, for tests that need many.
    static void addBarePeer(int nClientID, int fd, unsigned nAddress) {
        sockaddr_in siPeer{};
        siPeer.sin_addr.s_addr = htonl(nAddress);
        RelayClient client{Orvex::RelayMessageSocket(fd, siPeer)};
        client.SetClientID(nClientID);
        for (unsigned nProgram = 0; nProgram < RelayClient::kAudioPrograms; ++nProgram) {
            client.StartRcvAudio(nProgram, siPeer);
            client.StartSrcAudio(nProgram, siPeer);
        }
        notePeerSources(ctAuthClientTable.Add(client));
    }
};

TEST_F(PeerSources, AreFoundByAddressAndProgram) {
    const Peer peer = addPeer(8, "127.0.0.7");
    authClient(8).StartSrcAudio(2, siOf("127.0.0.8", 1));
    notePeerSources(authClient(8));
    EXPECT_TRUE(bSends("127.0.0.7", 0));
    EXPECT_TRUE(bSends("127.0.0.8", 2));
    EXPECT_FALSE(bSends("127.0.0.7", 1));
    EXPECT_FALSE(bSends("127.0.0.7", 2));
    EXPECT_FALSE(bSends("127.0.0.8", 0));
    EXPECT_FALSE(bSends("127.0.0.9", 0));
}

TEST_F(PeerSources, AClientThatIsNoPeerIsNotAmongThem) {
    const Peer peer = addAuthClientAt(8, "127.0.0.7");
    authClient(8).StartSrcAudio(0, siOf("127.0.0.7", 1));
    notePeerSources(authClient(8));
    EXPECT_FALSE(bSends("127.0.0.7"));
}

TEST_F(PeerSources, AProgramWithoutAnAddressBelongsToNoPeer) {
    const Peer peer = addPeer(8, "127.0.0.7");
    EXPECT_FALSE(bSends("0.0.0.0", 1));
}

TEST_F(PeerSources, APeerThatStoppedBeingOneIsNotFound) {
    const Peer peer = addPeer(8, "127.0.0.7");
    authClient(8).StopRcvAudio(0);
    EXPECT_FALSE(bSends("127.0.0.7"));
}

TEST_F(PeerSources, APeerThatWentIsNotFound) {
    const Peer peer = addPeer(8, "127.0.0.7");
    remove(8);
    EXPECT_FALSE(bSends("127.0.0.7"));
    EXPECT_FALSE(bSends("127.0.0.7"));
}

TEST_F(PeerSources, APeerThatMovedIsFoundWhereItIsNow) {
    const Peer peer = addPeer(8, "127.0.0.7");
    authClient(8).StartSrcAudio(0, siOf("127.0.0.9", 1));
    notePeerSources(authClient(8));
    EXPECT_FALSE(bSends("127.0.0.7"));
    EXPECT_TRUE(bSends("127.0.0.9"));
    authClient(8).StartSrcAudio(0, siOf("127.0.0.7", 1));
    notePeerSources(authClient(8));
    EXPECT_TRUE(bSends("127.0.0.7"));
    EXPECT_FALSE(bSends("127.0.0.9"));
}

TEST_F(PeerSources, APortThatAnOrderNamesLeavesThePeerWhereItSendsFrom) {
    const Peer peer = addPeer(8, "127.0.0.7");
    authClient(8).StartSrcAudio(0, siOf("127.0.0.9", 1));
    notePeerSources(authClient(8));
    setPeerUdpBasePort(authClient(8), 6900);
    EXPECT_TRUE(bSends("127.0.0.9"));
    EXPECT_FALSE(bSends("127.0.0.7"));
}

TEST_F(PeerSources, APeerIsFoundUnderAnyId) {
    const Peer peer = addPeer(8, "127.0.0.7");
    authClient(8).SetClientID(9);
    EXPECT_TRUE(bSends("127.0.0.7"));
}

TEST_F(PeerSources, ANewcomerOnThePeersDescriptorIsNotTakenForIt) {
    const Peer peer = addPeer(8, "127.0.0.7");
    const int fdOld = fdOf(8);
    remove(8);
    const Peer newcomer = addAuthClientAt(9, "127.0.0.7");
    ASSERT_EQ(fdOld, fdOf(9)) << "the number is used again";
    EXPECT_FALSE(bSends("127.0.0.7"));
    MarkAsRelay(authClient(9));
    EXPECT_TRUE(bSends("127.0.0.7"));
}

TEST_F(PeerSources, OfTwoPeersAtOneAddressTheOtherStays) {
    const Peer first = addPeer(8, "127.0.0.7");
    const Peer second = addPeer(9, "127.0.0.7");
    remove(8);
    EXPECT_TRUE(bSends("127.0.0.7"));
    const Peer third = addPeer(10, "127.0.0.7");
    remove(9);
    EXPECT_TRUE(bSends("127.0.0.7"));
    remove(10);
    EXPECT_FALSE(bSends("127.0.0.7"));
}

TEST_F(PeerSources, ThousandsThatComeAndGoArePutOutOfMind) {
    constexpr int fdBare = 1000000;
    constexpr unsigned kFirstAddress = 0x0A000000;
    for (int i = 0; i < 20000; ++i) {
        addBarePeer(i, fdBare, kFirstAddress + static_cast<unsigned>(i));
        ASSERT_TRUE(ctAuthClientTable.bDelete(fdBare));
        ASSERT_LE(nPeerSourceNotesForTest(), 1100U);
    }
}

TEST_F(PeerSources, OnesThatStayAreRemembered) {
    constexpr int fdFirst = 1000000;
    constexpr unsigned kFirstAddress = 0x0A000000;
    constexpr unsigned kPeers = 1000;
    for (unsigned i = 0; i < kPeers; ++i) {
        addBarePeer(static_cast<int>(i), fdFirst + static_cast<int>(i), kFirstAddress + i);
    }
    for (unsigned i = 0; i < 2000; ++i) {  // as many go as make the notes be swept
        addBarePeer(0, fdFirst - 1, kFirstAddress + kPeers + i);
        ASSERT_TRUE(ctAuthClientTable.bDelete(fdFirst - 1));
    }
    for (unsigned i = 0; i < kPeers; ++i) {
        ASSERT_TRUE(bPeerSendsFrom({htonl(kFirstAddress + i)}, i % 6)) << i;
    }
    EXPECT_LE(nPeerSourceNotesForTest(), 1100U + 2 * 6 * kPeers);
}

TEST_F(PeerSources, ALookUpTakesNothingFromTheHeap) {
    const Peer first = addPeer(8, "127.0.0.7");
    const Peer second = addPeer(9, "127.0.0.7");
    remove(8);
    const in_addr iaPeer = siOf("127.0.0.7", 0).sin_addr;
    const in_addr iaStranger = siOf("127.0.0.9", 0).sin_addr;
    const size_t nBefore = nAllocations();
    EXPECT_TRUE(bPeerSendsFrom(iaPeer, 0));
    EXPECT_FALSE(bPeerSendsFrom(iaPeer, 1));
    EXPECT_FALSE(bPeerSendsFrom(iaStranger, 0));
    EXPECT_EQ(nBefore, nAllocations());
}

}  // namespace
