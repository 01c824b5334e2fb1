#include <algorithm>

#include "base/clock.h"
#include "base/string_format.h"
#include "relayserver/audio/udp_registration.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/cslink/link_state.h"
#include "relayserver/orders/link_events.h"
#include "relayserver/peers/peer_sources.h"
#include "relayserver/settings/timers.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Client 7 is a station on 127.0.0.2, client 8 a relay on 127.0.0.8.
class UdpRegistrationOfPeers : public AudioTest {
  protected:
    UdpRegistrationOfPeers() : client(addAuthClient(7)), relay(addRelayPeer(8, 8, audio)) {}

    /// Registers client 7 to receive program 1, and again after `nSecs`.
    void registerAgainAfter(int nSecs) const {
        exchange(station, 1, sRegistration(7, 1));
        loggedLines().clear();
        advanceClockForTest(nSecs);
        exchange(station, 1, sRegistration(7, 1));
    }

    void unmarkRelay() const {
        authClient(8).StopRcvAudio(0);
        authClient(8).StopSrcAudio(0);
    }

    const PeerAudio audio{8};
    const Station station{2};
    Peer client;
    const Peer relay;
};

TEST_F(UdpRegistrationOfPeers, AreNotRenewedBefore241Seconds) {
    registerAgainAfter(240);
    EXPECT_EQ(1U, loggedLines().size());
    EXPECT_EQ(kNow, ttLastUdpReregister);
    EXPECT_EQ(0U, audio.nReceived());
}

TEST_F(UdpRegistrationOfPeers, AreRenewedWhenAClientRegistersAgainAfter241Seconds) {
    registerAgainAfter(241);
    EXPECT_THAT(
        loggedLines(),
        ElementsAre("UDP registration messages from source 7, program_idx 1, addr 127.0.0.2\n",
                    string_format("Notice: Client 7 re-registering to rx audio program 1 at "
                                  "127.0.0.2(%d)\n",
                                  station.nPort()),
                    "reregistering all relay peers\n",
                    string_format("debug: registering udp with relay peer 8 on udp ports with "
                                  "base %d\n",
                                  audio.nBasePort())));
    EXPECT_EQ(18U, audio.nReceived());
    EXPECT_EQ(kNow + 241, ttLastUdpReregister);
    exchange(station, 1, sRegistration(7, 1));
    EXPECT_EQ(0U, audio.nReceived());  // the period has restarted
}

TEST_F(UdpRegistrationOfPeers, AreNotRenewedForAFirstRegistration) {
    advanceClockForTest(241);
    exchange(station, 1, sRegistration(7, 5));
    EXPECT_EQ(0U, nLogged("reregistering all relay peers\n"));
}

TEST_F(UdpRegistrationOfPeers, AreNotRenewedForAClientThatOnlySends) {
    exchange(station, 1, sRegistration(7, 4));
    advanceClockForTest(241);
    exchange(station, 1, sRegistration(7, 4));
    EXPECT_EQ(0U, nLogged("reregistering all relay peers\n"));
}

TEST_F(UdpRegistrationOfPeers, AreNotRenewedForAPeer) {
    advanceClockForTest(241);
    exchange(audio.of(0, 0), 0, sRegistration(8, 5));
    EXPECT_EQ(0U, nLoggedContaining("re-registering"));
    EXPECT_EQ(kNow, ttLastUdpReregister);
}

TEST_F(UdpRegistrationOfPeers, ACallbackMarksTheRelayAndRegistersThatProgramInReturn) {
    unmarkRelay();
    exchange(audio.of(0, 3), 3, sRegistration(8, 7));
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    for (int nChannel = 0; nChannel < 3; ++nChannel) {
        const std::vector<std::string> received = audio.of(nChannel, 3).received();
        ASSERT_EQ(1U, received.size());
        EXPECT_EQ(5, received[0][21]);  // receives and sends, but no callback
    }
    EXPECT_EQ(0U, audio.nReceived());
    ASSERT_GE(loggedLines().size(), 5U);
    EXPECT_EQ("debug: performing udp registration callback to client 8\n", loggedLines()[3]);
    EXPECT_EQ(string_format("debug: registering udp with relay peer 8 on udp ports with base %d\n",
                            audio.nBasePort()),
              loggedLines().back());
}

TEST_F(UdpRegistrationOfPeers, ACallbackAloneChangesNoAddress) {
    unmarkRelay();
    exchange(audio.of(0, 3), 3, sRegistration(8, 2));
    EXPECT_TRUE(bIsRelayPeer(authClient(8)));
    EXPECT_FALSE(authClient(8).bIsRcvAudio(3));
    EXPECT_FALSE(authClient(8).bIsSrcAudio(3));
}

TEST_F(UdpRegistrationOfPeers, APeerIsHeardFromWhereItRegistered) {
    EXPECT_FALSE(bPeerSendsFrom(siLoopbackHost(6).sin_addr, 3));
    exchange(Station(6), 3, sRegistration(8, 4));
    EXPECT_TRUE(bPeerSendsFrom(siLoopbackHost(6).sin_addr, 3));
}

TEST_F(UdpRegistrationOfPeers, TwoRegistrationsOfProgram0MakeAPeerThatIsHeardOnEveryProgram) {
    exchange(station, 2, sRegistration(7, 4));
    EXPECT_FALSE(bPeerSendsFrom(station.siAddress().sin_addr, 2));
    exchange(station, 0, sRegistration(7, 4));
    exchange(station, 0, sRegistration(7, 1));
    EXPECT_TRUE(bPeerSendsFrom(station.siAddress().sin_addr, 0));
    EXPECT_TRUE(bPeerSendsFrom(station.siAddress().sin_addr, 2));
}

TEST_F(UdpRegistrationOfPeers, AClientIsRegisteredWholeAlthoughTheLinkBreaksMeanwhile) {
    exchange(station, 1, sRegistration(7, 1));
    authClient(8).SetTicket(nullptr, 0);
    advanceClockForTest(241);
    // One ticket is requested, which finds the link broken. Its last message is for client 7, to
    // which nothing can be sent any more.
    const Peer link = openLink();
    ttLastCSConnectAttempt = nowSecs();
    link.sendBytes(sFrame(sImage(3, 1, 7, "hello~")));
    link.stopReading();
    client.close();
    exchange(station, 1, sRegistration(7, 7));
    EXPECT_EQ(1U, nLogged("socket broken sending message to connection server!\n"));
    EXPECT_EQ(1U, nLoggedContaining("registered to send audio"));
    EXPECT_EQ(1U, nLoggedContaining("performing udp registration callback"));
    EXPECT_TRUE(bIsAdmitted(7));
    settleBrokenLink();
    EXPECT_FALSE(bIsAdmitted(7));
}

}  // namespace
