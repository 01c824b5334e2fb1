#include "relayserver/audio/udp_receive.h"

#include "base/clock.h"
#include "relayserver/audio/packet_counts.h"
#include "relayserver/peers/peer_sources.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Client 7 sends from 127.0.0.2, client 9 receives every program.
class UdpReceive : public AudioTest {
  protected:
    UdpReceive() : source(addAuthClient(7)), receiver(addAuthClient(9)) {
        for (unsigned i = 0; i < Orvex::RelayClient::kAudioPrograms; ++i) {
            authClient(9).StartRcvAudio(i, ear.siAddress());
        }
        giveAudioRoute(7, {"9"});
        giveAudioRoute(5000, {"9"});
    }

    /// Client 8, which is no station but a relay, sends program 0 from 127.0.0.8.
    Peer addPeerOn8() {
        Peer peer = addAuthClient(8);
        authClient(8).StartRcvAudio(0, siLoopbackHost(8, 1000));
        authClient(8).StartSrcAudio(0, siLoopbackHost(8, 1000));
        notePeerSources(authClient(8));
        return peer;
    }

    static long lLastMessageTime(int nClientID) {
        long lTime = 0;
        authClient(nClientID).GetLastMessageTime(lTime);
        return lTime;
    }

    const Peer source;
    const Peer receiver;
    const Station mouth{2};
    const Station ear{3};
};

TEST_F(UdpReceive, ForwardsTheBytesOfALocalSourceUnchanged) {
    authClient(7).StartSrcAudio(1, mouth.siAddress());
    std::string sSent = sDatagram(7, std::string("\x13 audio \0 ~ \xff", 13));
    sSent[3] = 'x';  // the first twelve are not examined
    exchange(mouth, 1, sSent);
    EXPECT_THAT(ear.received(), ElementsAre(sSent));
}

TEST_F(UdpReceive, SendsFromTheSocketThatReceived) {
    authClient(7).StartSrcAudio(4, mouth.siAddress());
    exchange(mouth, 4, sDatagram(7, "audio"));
    sockaddr_in siRelay{};
    socklen_t nLen = sizeof siRelay;
    getsockname(udp_listen_sockfd[4], reinterpret_cast<sockaddr*>(&siRelay), &nLen);
    EXPECT_EQ(ntohs(siRelay.sin_port), ear.nPortOfNext());
}

TEST_F(UdpReceive, TakesALocalSourceFromAnyPortOfItsAddress) {
    authClient(7).StartSrcAudio(1, siLoopbackHost(2, mouth.nPort() ^ 1));
    exchange(mouth, 1, sDatagram(7, "audio"));
    EXPECT_EQ(1U, ear.received().size());
}

TEST_F(UdpReceive, TakesNothingFromAnotherAddress) {
    authClient(7).StartSrcAudio(1, siLoopbackHost(4, mouth.nPort()));
    exchange(mouth, 1, sDatagram(7, "audio"));
    EXPECT_THAT(ear.received(), IsEmpty());
    EXPECT_EQ(0U, nAudioPacketsRcvd);
}

TEST_F(UdpReceive, TakesNothingUnderAnotherId) {
    authClient(7).StartSrcAudio(1, mouth.siAddress());
    giveAudioRoute(9, {"9"});
    for (const unsigned nMarkedID : {0U, 9U, 8U, 0xFFFFFFFFU, 0x80000007U}) {
        giveAudioRoute(nMarkedID, {"9"});
        exchange(mouth, 1, sDatagram(nMarkedID, "audio"));
    }
    EXPECT_THAT(ear.received(), IsEmpty());
    EXPECT_THAT(executedStatements(), IsEmpty());
}

TEST_F(UdpReceive, TakesNothingForAProgramThatIsNotSourced) {
    authClient(7).StartSrcAudio(1, mouth.siAddress());
    authClient(7).StartSrcAudio(2, mouth.siAddress());
    authClient(7).StopSrcAudio(2);
    exchange(mouth, 0, sDatagram(7, "audio"));
    exchange(mouth, 2, sDatagram(7, "audio"));
    EXPECT_THAT(ear.received(), IsEmpty());
}

TEST_F(UdpReceive, AnIdAboveTheSignedRangeIsAnIdLikeAnyOther) {
    const Peer big = addAuthClient(static_cast<int>(4000000000U));
    authClient(static_cast<int>(4000000000U)).StartSrcAudio(0, mouth.siAddress());
    giveAudioRoute(4000000000U, {"9"});
    exchange(mouth, 0, sDatagram(4000000000U, "audio"));
    EXPECT_EQ(1U, ear.received().size());
}

TEST_F(UdpReceive, ALocalSourceHasGivenASignOfLife) {
    authClient(7).StartSrcAudio(1, mouth.siAddress());
    advanceClockForTest(20);
    exchange(mouth, 1, sDatagram(7, "audio"));
    EXPECT_EQ(kNow + 20, lLastMessageTime(7));
}

TEST_F(UdpReceive, ForwardsWhateverIdAPeerMarks) {
    const Peer relay = addPeerOn8();
    const Station peer(8);
    exchange(peer, 0, sDatagram(5000, "from afar"));
    EXPECT_THAT(ear.received(), ElementsAre(sDatagram(5000, "from afar")));
    EXPECT_EQ(0U, nAudioPacketsRcvd);
}

TEST_F(UdpReceive, HasAnAddressOfItsOwnForEachProgramOfAPeer) {
    const Peer relay = addPeerOn8();
    authClient(8).StartSrcAudio(3, siLoopbackHost(4));
    notePeerSources(authClient(8));
    exchange(Station(8), 3, sDatagram(5000, "wrong"));
    exchange(Station(4), 0, sDatagram(5000, "wrong"));
    EXPECT_THAT(ear.received(), IsEmpty());
    exchange(Station(4), 3, sDatagram(5000, "three"));
    exchange(Station(8), 0, sDatagram(5000, "nought"));
    EXPECT_THAT(ear.received(), ElementsAre(sDatagram(5000, "three"), sDatagram(5000, "nought")));
}

TEST_F(UdpReceive, APeerComesBeforeALocalSourceOfTheSameAddress) {
    const Peer relay = addPeerOn8();
    authClient(7).StartSrcAudio(0, siLoopbackHost(8));
    advanceClockForTest(20);
    exchange(Station(8), 0, sDatagram(7, "audio"));
    EXPECT_EQ(1U, ear.received().size());
    EXPECT_EQ(kNow, lLastMessageTime(7));
    EXPECT_EQ(0U, nAudioPacketsRcvd);
}

TEST_F(UdpReceive, APeerThatIsNoneAnyMoreSendsNothing) {
    const Peer relay = addPeerOn8();
    authClient(8).StopRcvAudio(0);
    exchange(Station(8), 0, sDatagram(5000, "audio"));
    EXPECT_THAT(ear.received(), IsEmpty());
}

TEST_F(UdpReceive, ADatagramOfAPeerIsNotForAnotherPeer) {
    const Peer relay = addPeerOn8();
    const Station farEar(6);
    const Peer other = addAuthClient(10);
    authClient(10).StartRcvAudio(0, farEar.siAddress());
    authClient(10).StartSrcAudio(0, farEar.siAddress());
    notePeerSources(authClient(10));
    giveAudioRoute(5000, {"10"});
    exchange(Station(8), 0, sDatagram(5000, "audio"));
    EXPECT_THAT(farEar.received(), IsEmpty());
    EXPECT_EQ(1U, nLoggedContaining("suppressing possible relay loop to relay peer 10"));
}

TEST_F(UdpReceive, EachChannelOfErrorCorrectionGoesToAPortOfItsOwn) {
    authClient(7).StartSrcAudio(2, mouth.siAddress());
    const PeerAudio ports(5);  // two apart
    authClient(9).StartRcvAudio(2, ports.of(0, 0).siAddress());
    mouth.send(udp_fec1_sockfd[2], sDatagram(7, "first"));
    receive(udp_fec1_sockfd[2]);
    mouth.send(udp_fec2_sockfd[2], sDatagram(7, "second"));
    receive(udp_fec2_sockfd[2]);
    EXPECT_THAT(ports.of(0, 0).received(), IsEmpty());
    EXPECT_THAT(ports.of(0, 1).received(), ElementsAre(sDatagram(7, "first")));
    EXPECT_THAT(ports.of(0, 2).received(), ElementsAre(sDatagram(7, "second")));
}

}  // namespace
