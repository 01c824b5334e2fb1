#include "relayserver/audio/udp_registration.h"

#include "base/clock.h"
#include "base/string_format.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/admission/ticket_maker.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Client 7 registers from 127.0.0.2.
class UdpRegistration : public AudioTest {
  protected:
    UdpRegistration() : client(addAuthClient(7)) {}

    std::string sArrival(unsigned nMarkedID, int nProgram) const {
        return string_format(
            "UDP registration messages from source %u, program_idx %d, addr 127.0.0.2\n", nMarkedID,
            nProgram);
    }

    std::string sReceives(int nProgram) const {
        return string_format("Client 7 registered to rx audio program %d at 127.0.0.2(%d)\n",
                             nProgram, station.nPort());
    }

    std::string sSendsLine(int nProgram) const {
        return string_format("Client 7 registered to send audio program %d at 127.0.0.2(%d)\n",
                             nProgram, station.nPort());
    }

    bool bReceivesHere(unsigned nProgram) const {
        return authClient(7).bIsRcvAudio(nProgram) &&
               siReceives(7, nProgram).sin_port == station.siAddress().sin_port &&
               siReceives(7, nProgram).sin_addr.s_addr == station.siAddress().sin_addr.s_addr;
    }

    bool bSendsHere(unsigned nProgram) const {
        return authClient(7).bIsSrcAudio(nProgram) &&
               siSends(7, nProgram).sin_port == station.siAddress().sin_port &&
               siSends(7, nProgram).sin_addr.s_addr == station.siAddress().sin_addr.s_addr;
    }

    const Peer client;
    const Station station{2};
};

TEST_F(UdpRegistration, WithFlag1LetsTheClientReceiveWhereItCameFrom) {
    exchange(station, 3, sRegistration(7, 1));
    EXPECT_TRUE(bReceivesHere(3));
    EXPECT_FALSE(authClient(7).bIsSrcAudio(3));
    EXPECT_FALSE(authClient(7).bIsRcvAudio(2));
    EXPECT_THAT(loggedLines(), ElementsAre(sArrival(7, 3), sReceives(3)));
    EXPECT_THAT(client.sReceived(), IsEmpty());
}

TEST_F(UdpRegistration, WithFlag4LetsTheClientSendFromThere) {
    exchange(station, 5, sRegistration(7, 4));
    EXPECT_TRUE(bSendsHere(5));
    EXPECT_FALSE(authClient(7).bIsRcvAudio(5));
    EXPECT_THAT(loggedLines(), ElementsAre(sArrival(7, 5), sSendsLine(5)));
}

TEST_F(UdpRegistration, WithFlags5DoesBothInThisOrder) {
    exchange(station, 0, sRegistration(7, 5));
    EXPECT_TRUE(bReceivesHere(0));
    EXPECT_TRUE(bSendsHere(0));
    EXPECT_THAT(loggedLines(), ElementsAre(sArrival(7, 0), sReceives(0), sSendsLine(0)));
}

TEST_F(UdpRegistration, WithoutFlagsDoesNothing) {
    exchange(station, 0, sRegistration(7, 0));
    EXPECT_THAT(loggedLines(), ElementsAre(sArrival(7, 0)));
    EXPECT_FALSE(authClient(7).bIsRcvAudio(0));
    EXPECT_FALSE(authClient(7).bIsSrcAudio(0));
}

TEST_F(UdpRegistration, ObeysEveryCombinationOfFlags) {
    const PeerAudio audio(8);
    for (unsigned nFlags = 0; nFlags < 8; ++nFlags) {
        advanceClockForTest(11);  // as often as a client may log in
        const Peer relay = addRelayPeer(8, 8, audio);
        for (const unsigned i : {0U, 2U}) {
            authClient(8).StopRcvAudio(i);
            authClient(8).StopSrcAudio(i);
        }
        exchange(station, 2, sRegistration(8, nFlags));
        EXPECT_EQ((nFlags & 1U) != 0, authClient(8).bIsRcvAudio(2)) << nFlags;
        EXPECT_EQ((nFlags & 4U) != 0, authClient(8).bIsSrcAudio(2)) << nFlags;
        EXPECT_EQ((nFlags & 2U) != 0 ? 3U : 0U, audio.nReceived()) << nFlags;
        DeleteClient(ctAuthClientTable, authClient(8), LeaveReason::kLoggedOut);
    }
}

TEST_F(UdpRegistration, AgainOverwritesTheAddressWithoutALine) {
    exchange(station, 1, sRegistration(7, 5));
    loggedLines().clear();
    const Station moved(4);
    exchange(moved, 1, sRegistration(7, 5));
    EXPECT_EQ(moved.siAddress().sin_port, siReceives(7, 1).sin_port);
    EXPECT_EQ(moved.siAddress().sin_addr.s_addr, siReceives(7, 1).sin_addr.s_addr);
    EXPECT_EQ(moved.siAddress().sin_port, siSends(7, 1).sin_port);
    EXPECT_EQ(1U, loggedLines().size());  // its arrival
}

TEST_F(UdpRegistration, WithClientId0IsThatOfTheMarkedId) {
    const std::string sTicket = sEncryptedTicket(7, kNow);
    exchange(station, 3, sRegistration(7, 0, sTicket, 1));
    EXPECT_TRUE(bReceivesHere(3));
    ASSERT_GE(loggedLines().size(), 3U);
    EXPECT_EQ(sArrival(7, 3), loggedLines()[0]);
    EXPECT_EQ("client ID in relay connect message came back as zero\n", loggedLines()[1]);
    EXPECT_EQ(sReceives(3), loggedLines().back());
}

TEST_F(UdpRegistration, WithClientId0NeedsTheTicketOfTheMarkedId) {
    exchange(station, 3, sRegistration(7, 0, sEncryptedTicket(0, kNow), 1));
    EXPECT_FALSE(authClient(7).bIsRcvAudio(3));
    EXPECT_EQ(1U, nLoggedContaining("rejected for registration info mismatch"));
}

TEST_F(UdpRegistration, WithClientId0IsShownInAboutOneOfTenCases) {
    for (int i = 0; i < 600; ++i) {
        advanceClockForTest(1);
        exchange(station, 3, sRegistration(8, 0, "", 1));
    }
    EXPECT_EQ(600U, nLogged("client ID in relay connect message came back as zero\n"));
    const size_t nShown = nLogged("full udp message contents:\n");
    EXPECT_GT(nShown, 20U);
    EXPECT_LT(nShown, 150U);
    EXPECT_EQ(nShown, nLoggedContaining("[19][8][0][0][0][1][0][0][0]0~~"));
}

TEST_F(UdpRegistration, IsForTheClientOfItsMessageWhateverIdIsMarked) {
    for (const unsigned nMarkedID : {0U, 12U, 0xFFFFFFFFU}) {
        exchange(station, 3, sRegistration(nMarkedID, 7, sEncryptedTicket(7, kNow), 1));
        EXPECT_EQ(1U, nLogged(sArrival(nMarkedID, 3)));
    }
    EXPECT_TRUE(bReceivesHere(3));
}

TEST_F(UdpRegistration, OfAnAbsentClientIsTold) {
    exchange(station, 0, sRegistration(7, 4000000000U, sEncryptedTicket(4000000000U, kNow), 7));
    EXPECT_THAT(loggedLines(),
                ElementsAre(sArrival(7, 0),
                            "UDP registration marked as from client 4000000000, but that ID not "
                            "found in TCP registration table\n"));
    EXPECT_FALSE(authClient(7).bIsRcvAudio(0));
    EXPECT_THAT(client.sReceived(), IsEmpty());
}

TEST_F(UdpRegistration, MayHaveBytesBehindItsFields) {
    std::string sLong = sRegistration(7, 1);
    sLong += std::string(2047 - sLong.size(), 'x') + '~';
    exchange(station, 3, sLong);
    EXPECT_TRUE(bReceivesHere(3));
}

TEST_F(UdpRegistration, LongerThanWhatIsReceivedIsNone) {
    std::string sLong = sRegistration(7, 1);
    sLong += std::string(2048 - sLong.size(), '~') + '~';
    exchange(station, 3, sLong);
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(UdpRegistration, FromACorrectionSocketIsTakenByTheLetterFromAStation) {
    exchange(station, 3, sRegistration(7, 1));
    const Station other(2);
    other.send(udp_fec1_sockfd[3], sRegistration(7, 5));
    receive(udp_fec1_sockfd[3]);
    EXPECT_EQ(other.siAddress().sin_port, siReceives(7, 3).sin_port);
    EXPECT_EQ(other.siAddress().sin_port, siSends(7, 3).sin_port);
}

TEST_F(UdpRegistration, FromACorrectionSocketOfANamedRelayLeavesItsAddress) {
    const PeerAudio audio(8);
    const Peer relay = addRelayPeer(8, 8, audio);
    for (const int fd : {udp_fec1_sockfd[3], udp_fec2_sockfd[3]}) {
        audio.of(1, 3).send(fd, sRegistration(8, 5));
        receive(fd);
        EXPECT_EQ(htons(static_cast<std::uint16_t>(audio.nBasePort() + 6)),
                  siReceives(8, 3).sin_port);
        EXPECT_EQ(siLoopbackHost(8).sin_addr.s_addr, siSends(8, 3).sin_addr.s_addr);
    }
    EXPECT_EQ(1U, nLogged(string_format("Client 8 registered to rx audio program 3 at "
                                        "127.0.0.8(%d)\n",
                                        audio.of(1, 3).nPort())));
}

}  // namespace
