#include "relayserver/audio/switch_audio.h"

#include "relayserver/routes/route_store.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/allocation_count.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr unsigned kSource = 4000000000U;

/// Client 9 receives programs 0 and 2.
class SwitchAudio : public AudioTest {
  protected:
    SwitchAudio() : receiver(addAuthClient(9)) {
        authClient(9).StartRcvAudio(0, ear.siAddress());
        authClient(9).StartRcvAudio(2, ear.siAddress());
    }

    static void switchOne(int nProgram, int nFecChannel = 0, bool bFromRelayPeer = false,
                          const std::string& sBytes = "audio") {
        SwitchAudioPacket(kSource, udp_listen_sockfd[nProgram], sBytes.data(),
                          static_cast<int>(sBytes.size()), bFromRelayPeer, nFecChannel, nProgram);
        flushAudio();
    }

    static Peer addMarkedPeer(int nClientID, const Station& station) {
        Peer peer = addAuthClient(nClientID);
        authClient(nClientID).StartRcvAudio(0, station.siAddress());
        authClient(nClientID).StartSrcAudio(0, station.siAddress());
        return peer;
    }

    const Station ear{3};
    const Peer receiver;
};

TEST_F(SwitchAudio, AsksTheDatabaseOnceAndSaysSo) {
    giveAudioRoute(kSource, {"9", "10"});
    switchOne(0);
    switchOne(2);
    EXPECT_THAT(executedStatements(),
                ElementsAre("SELECT clientto FROM iopatch WHERE clientfrom='4000000000' AND "
                            "msgclass='64'"));
    EXPECT_THAT(loggedLines(), ElementsAre("cache miss for source 4000000000 type AUDIO, now "
                                           "sending to 2 clients\n"));
    EXPECT_EQ(2U, ear.received().size());
}

TEST_F(SwitchAudio, RemembersThatThereIsNoRoute) {
    switchOne(0);
    switchOne(0);
    EXPECT_EQ(1U, executedStatements().size());
    EXPECT_EQ(1U, nLogged("cache miss for source 4000000000 type AUDIO, now sending to 0 "
                          "clients\n"));
    EXPECT_EQ(0U, audio_packets_sent);
}

TEST_F(SwitchAudio, ServesEachDestinationInTheOrderOfTheRoute) {
    const Station both(4);
    const Peer second = addAuthClient(10);
    authClient(10).StartRcvAudio(0, both.siAddress());
    authClient(9).StartRcvAudio(0, both.siAddress());
    giveAudioRoute(kSource, {"10", "9", "10"});
    switchOne(0);
    EXPECT_THAT(both.received(), ElementsAre("audio", "audio", "audio"));
    EXPECT_EQ(3U, audio_packets_sent);
}

TEST_F(SwitchAudio, SkipsClientsThatCannotReceive) {
    const Peer deaf = addAuthClient(10);
    const Peer nowhere = addAuthClient(11);
    authClient(11).StartRcvAudio(0, siLoopbackHost(5, 0));
    giveAudioRoute(kSource, {"10", "11", "12", "0", "", "no number", "9"});
    switchOne(0);
    EXPECT_EQ(1U, ear.received().size());
    EXPECT_EQ(1U, audio_packets_sent);
    switchOne(1);  // which nobody receives
    EXPECT_EQ(1U, audio_packets_sent);
    authClient(9).StopRcvAudio(0);
    switchOne(0);
    EXPECT_THAT(ear.received(), IsEmpty());
}

TEST_F(SwitchAudio, DissolvesALoopBetweenPeersAndServesTheNext) {
    const Station far(6);
    const Peer peer = addMarkedPeer(8, far);
    giveAudioRoute(kSource, {"8", "9"});
    switchOne(0, 0, true);
    EXPECT_THAT(far.received(), IsEmpty());
    EXPECT_EQ(1U, ear.received().size());
    EXPECT_EQ(1U, audio_packets_sent);
    EXPECT_EQ(
        "WARNING: suppressing possible relay loop to relay peer 8, originating client "
        "4000000000. Likely there are old audio links in our system, will try to clean up "
        "locally.\n",
        loggedLines().at(1));
    EXPECT_EQ(dissolvingStatements(kSource, 8, kAudioMsgClass).front(), executedStatements().at(1));
    giveAudioRoute(kSource, {"9"});
    switchOne(0, 0, true);
    EXPECT_EQ(2U, nLoggedContaining("cache miss for source 4000000000"));
    EXPECT_EQ(1U, nLoggedContaining("possible relay loop"));
}

TEST_F(SwitchAudio, DissolvesALoopToAPeerThatDoesNotReceiveTheProgram) {
    const Station far(6);
    const Peer peer = addMarkedPeer(8, far);
    giveAudioRoute(kSource, {"8"});
    switchOne(5, 0, true);
    EXPECT_EQ(1U, nLoggedContaining("possible relay loop"));
}

TEST_F(SwitchAudio, GoesFromAStationToAPeerAndFromAPeerToAStation) {
    const Station far(6);
    const Peer peer = addMarkedPeer(8, far);
    giveAudioRoute(kSource, {"8", "9"});
    switchOne(0, 0, false);
    EXPECT_EQ(1U, far.received().size());
    EXPECT_EQ(1U, ear.received().size());
    EXPECT_EQ(0U, nLoggedContaining("possible relay loop"));
}

TEST_F(SwitchAudio, CarriesErrorCorrectionToTheNextPortsOfAStation) {
    const PeerAudio ports(5);  // two apart
    authClient(9).StartRcvAudio(2, ports.of(0, 1).siAddress());
    giveAudioRoute(kSource, {"9"});
    for (int nChannel = 0; nChannel < 3; ++nChannel) {
        switchOne(2, nChannel);
        EXPECT_EQ(1U, ports.of(0, 1 + nChannel).received().size()) << nChannel;
    }
    EXPECT_EQ(0U, ports.nReceived());
}

TEST_F(SwitchAudio, CarriesErrorCorrectionToTheSocketsOfANamedRelay) {
    const PeerAudio audio(8);
    const Peer relay = addRelayPeer(8, 8, audio);
    authClient(8).StartRcvAudio(3, audio.of(0, 3).siAddress());
    giveAudioRoute(kSource, {"8"});
    for (int nChannel = 0; nChannel < 3; ++nChannel) {
        switchOne(3, nChannel);
        EXPECT_EQ(1U, audio.of(nChannel, 3).received().size()) << nChannel;
    }
    EXPECT_EQ(0U, audio.nReceived());
}

TEST_F(SwitchAudio, PortsOfErrorCorrectionWrapInTheir16Bits) {
    const Station target(5, 64);  // 65500 + 100
    ASSERT_TRUE(target.bBound()) << "takes the rights of root";
    authClient(9).nRelayUdpBasePort = htons(1);
    authClient(9).StartRcvAudio(2, siLoopbackHost(5, 65500));
    giveAudioRoute(kSource, {"9"});
    switchOne(2, 1);
    EXPECT_EQ(1U, target.received().size());
}

TEST_F(SwitchAudio, LeavesTheBytesAlone) {
    giveAudioRoute(kSource, {"9"});
    std::string sBytes(2048, '\0');
    for (size_t i = 0; i < sBytes.size(); ++i) {
        sBytes[i] = static_cast<char>(i * 7);
    }
    switchOne(0, 0, false, sBytes);
    EXPECT_THAT(ear.received(), ElementsAre(sBytes));
}

TEST_F(SwitchAudio, TellsEveryTwoHundredThousandth) {
    giveAudioRoute(kSource, {"9"});
    resetSwitchAudioForTest(199998);
    switchOne(0);
    EXPECT_EQ(0U, nLoggedContaining("audio packets, this packet"));
    switchOne(0);
    switchOne(0);
    EXPECT_EQ(1U, nLogged("Sent 200000 audio packets, this packet switched from 4000000000 to "
                          "9\n"));
    EXPECT_EQ(1U, nLoggedContaining("audio packets, this packet"));
    EXPECT_EQ(200001U, audio_packets_sent);
}

TEST_F(SwitchAudio, CountsWhatTheSystemRefusedAsWell) {
    giveAudioRoute(kSource, {"9"});
    sockaddr_in siBroadcast = siLoopbackHost(3, 6900);
    siBroadcast.sin_addr.s_addr = INADDR_BROADCAST;
    authClient(9).StartRcvAudio(0, siBroadcast);
    switchOne(0);
    EXPECT_EQ(1U, audio_packets_sent);
}

TEST_F(SwitchAudio, TakesNothingFromTheHeapOnceTheRouteIsKnown) {
    for (const int nReceivers : {1, 50, 400}) {
        std::vector<Peer> peers;
        std::vector<std::string> route;
        for (int i = 0; i < nReceivers; ++i) {
            const int nClientID = 1000 * nReceivers + i;
            peers.push_back(addAuthClient(nClientID));
            authClient(nClientID).StartRcvAudio(0, ear.siAddress());
            route.push_back(std::to_string(nClientID));
        }
        resetRouteStoreForTest();
        giveAudioRoute(kSource, route);
        switchOne(0);
        const std::string sBytes = "audio";
        const size_t nBefore = nAllocations();
        for (int i = 0; i < 5; ++i) {
            SwitchAudioPacket(kSource, udp_listen_sockfd[0], sBytes.data(), 5, false, 0, 0);
        }
        flushAudio();
        EXPECT_EQ(nBefore, nAllocations()) << nReceivers;
        EXPECT_EQ(6U * static_cast<unsigned>(nReceivers), ear.received().size());
    }
}

TEST_F(SwitchAudio, ADatagramOnItsWholeWayTakesNothingFromTheHeap) {
    const Station mouth(2);
    const Peer source = addAuthClient(7);
    authClient(7).StartSrcAudio(0, mouth.siAddress());
    const PeerAudio audio(8);
    const Peer relay = addRelayPeer(8, 8, audio);
    giveAudioRoute(7, {"9", "8"});
    giveAudioRoute(77, {"9"});
    const std::string sOfStation = sDatagram(7, "audio");
    const std::string sOfPeer = sDatagram(77, "audio");
    size_t nBefore = 0;
    for (int nRound = 0; nRound < 2; ++nRound) {  // the first finds the routes
        nBefore = nAllocations();
        exchange(mouth, 0, sOfStation);
        exchange(audio.of(0, 0), 0, sOfPeer);
        exchange(mouth, 1, sOfStation);  // discarded
    }
    EXPECT_EQ(nBefore, nAllocations());
    EXPECT_EQ(4U, ear.received().size());
}

}  // namespace
