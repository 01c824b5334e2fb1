#include "base/clock.h"
#include "base/string_format.h"
#include "relayserver/admission/connect_limits.h"
#include "relayserver/clients/departures.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/admission/ticket_maker.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Client 7 is admitted; registrations come from 127.0.0.2.
class UdpRefusal : public AudioTest {
  protected:
    UdpRefusal() : client(addAuthClient(7)) {}

    std::string sNotAccepted(unsigned nMarkedID) const {
        return string_format(
            "udp registration ticket not accepted from ID %u, addr 127.0.0.2(%d)\n", nMarkedID,
            station.nPort());
    }

    static std::string sUnauthorized(unsigned nClientID) {
        return sFrame(sImage(0, kRelayID, 0, string_format("%u~UDP UNAUTHORIZED~", nClientID)));
    }

    bool bAccepts(const std::string& sRegistered) const {
        authClient(7).StopRcvAudio(1);
        exchange(station, 1, sRegistered);
        return authClient(7).bIsRcvAudio(1);
    }

    Peer client;
    const Station station{2};
};

TEST_F(UdpRefusal, IsToldToTheLogAndToTheClientOfTheMarkedId) {
    EXPECT_FALSE(bAccepts(sRegistration(7, 7, "", 1)));
    EXPECT_THAT(loggedLines(),
                ElementsAre("UDP registration messages from source 7, program_idx 1, addr "
                            "127.0.0.2\n",
                            "ticket rejected: improper length\n", sNotAccepted(7)));
    EXPECT_EQ(sUnauthorized(7), client.sReceived());
}

TEST_F(UdpRefusal, IsToldToTheMarkedIdAndNotToTheIdOfTheMessage) {
    const Peer marked = addAuthClient(9);
    EXPECT_FALSE(bAccepts(sRegistration(9, 7, "", 1)));
    EXPECT_EQ(sUnauthorized(9), marked.sReceived());
    EXPECT_THAT(client.sReceived(), IsEmpty());
    EXPECT_EQ(1U, nLogged(sNotAccepted(9)));
}

TEST_F(UdpRefusal, OfAMarkedIdThatIsNotHereIsAnsweredToNobody) {
    for (const unsigned nMarkedID : {0U, 8U, 0xFFFFFFFFU, 0x80000007U}) {
        EXPECT_FALSE(bAccepts(sRegistration(nMarkedID, 7, "", 1)));
        EXPECT_EQ(1U, nLogged(sNotAccepted(nMarkedID)));
    }
    EXPECT_THAT(client.sReceived(), IsEmpty());
}

TEST_F(UdpRefusal, MeetsFlagsOf8AndMoreWhateverTheTicket) {
    for (const unsigned nFlags : {8U, 9U, 0x80000001U, 0xFFFFFFFFU}) {
        loggedLines().clear();
        EXPECT_FALSE(bAccepts(sRegistration(7, nFlags)));
        EXPECT_EQ(string_format("ticket rejected for ill-formed flags - %u. Listed client ID was "
                                "7\n",
                                nFlags),
                  loggedLines().at(1));
        EXPECT_EQ(sNotAccepted(7), loggedLines().at(2));
    }
    EXPECT_EQ(4U, client.images().size());
    EXPECT_TRUE(idTixAcceptHistory.empty());  // none of the tickets was looked at
}

TEST_F(UdpRefusal, IllFormedFlagsNameTheMarkedIdWhenTheMessageHasNone) {
    EXPECT_FALSE(bAccepts(sRegistration(7, 0, sEncryptedTicket(7, kNow), 8)));
    EXPECT_EQ(1U, nLogged("ticket rejected for ill-formed flags - 8. Listed client ID was 7\n"));
}

TEST_F(UdpRefusal, MeetsATicketThatIsTooShort) {
    const std::string sTicket = sEncryptedTicket(7, kNow);
    for (const size_t nLen : {0U, 1U, 7U, 8U, 15U}) {
        EXPECT_FALSE(bAccepts(sRegistration(7, 7, sTicket.substr(0, nLen), 1))) << nLen;
    }
    EXPECT_EQ(5U, nLogged("ticket rejected: improper length\n"));
}

TEST_F(UdpRefusal, MeetsNoTicketThatIsOnlyLonger) {
    for (const size_t nLen : {0U, 1U, 48U, 49U, 184U}) {
        EXPECT_TRUE(
            bAccepts(sRegistration(7, 7, sEncryptedTicket(7, kNow) + std::string(nLen, 'x'), 1)))
            << nLen;
    }
}

TEST_F(UdpRefusal, MeetsATicketThatFillsTheDatagram) {
    EXPECT_FALSE(bAccepts(sRegistration(7, 7, std::string(2020, 'x'), 1)));
    EXPECT_EQ(1U, nLogged(sNotAccepted(7)));
    EXPECT_FALSE(bAccepts(sRegistration(7, 7, std::string(1000, '~'), 1)));
    EXPECT_EQ(2U, nLogged(sNotAccepted(7)));
}

TEST_F(UdpRefusal, MeetsWhatHasNoFields) {
    for (const std::string sImage :
         {"\x13~", "\x13\x07~", "\x13\x07\x01\x01\x01~~~", "\x13~~~~~~~~~"}) {
        EXPECT_FALSE(bAccepts(sDatagram(7, sImage)));
    }
    EXPECT_EQ(4U, nLogged(sNotAccepted(7)));
}

TEST_F(UdpRefusal, MeetsATicketOfAnotherClientOrAnOldOne) {
    EXPECT_FALSE(bAccepts(sRegistration(7, 7, sEncryptedTicket(9, kNow), 1)));
    EXPECT_EQ(1U, nLoggedContaining("rejected for registration info mismatch - "
                                    "plaintext/established info - id=7, addr=33554559,"));
    EXPECT_FALSE(bAccepts(sRegistration(7, 7, sEncryptedTicket(7, kNow - 300), 1)));
    EXPECT_TRUE(bAccepts(sRegistration(7, 7, sEncryptedTicket(7, kNow - 299), 1)));
    EXPECT_EQ(2U, client.images().size());
}

TEST_F(UdpRefusal, MeetsTheTenthRegistrationOfAnIdInAPeriod) {
    for (int i = 0; i < 9; ++i) {
        EXPECT_TRUE(bAccepts(sRegistration(7, 1)));
    }
    EXPECT_FALSE(bAccepts(sRegistration(7, 1)));
    EXPECT_EQ(1U, nLoggedContaining("Rejecting ticket for client 7 based on temporary"));
    advanceClockForTest(11);
    EXPECT_TRUE(bAccepts(sRegistration(7, 1)));
}

TEST_F(UdpRefusal, RemovesTheClientThatCannotBeTold) {
    client.close();
    exchange(station, 1, sRegistration(7, 7, "", 1));
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ(1U, nLogged("removing socket for client 7, and notifying CS\n"));
    EXPECT_EQ(1U, nDepartures(LeaveReason::kSendFailed));
}

TEST_F(UdpRefusal, IsToldOfTwoHundredInASecondAndSummedUpLater) {
    for (int i = 0; i < 250; ++i) {
        exchange(station, 1, sRegistration(7, 7, "", 1));
    }
    EXPECT_EQ(600U, loggedLines().size());
    EXPECT_EQ(200U, nLogged(sNotAccepted(7)));
    EXPECT_EQ(200U, client.images().size());
    advanceClockForTest(1);
    loggedLines().clear();
    exchange(station, 1, sRegistration(7, 7, "", 1));
    ASSERT_EQ(4U, loggedLines().size());
    EXPECT_EQ(
        "WARNING: 50 more UDP registrations were refused within one second, neither logged "
        "nor answered\n",
        loggedLines()[0]);
    EXPECT_EQ(1U, client.images().size());
    advanceClockForTest(1);
    exchange(station, 1, sRegistration(7, 7, "", 1));
    EXPECT_EQ(1U, nLoggedContaining("more UDP registrations were refused"));
}

TEST_F(UdpRefusal, OfExactlyTwoHundredNeedsNoSum) {
    for (int i = 0; i < 200; ++i) {
        exchange(station, 1, sRegistration(7, 7, "", 1));
    }
    advanceClockForTest(1);
    exchange(station, 1, sRegistration(7, 7, "", 1));
    EXPECT_EQ(201U, nLogged(sNotAccepted(7)));
    EXPECT_EQ(0U, nLoggedContaining("more UDP registrations were refused"));
}

TEST_F(UdpRefusal, OfEveryKindIsSilentInAFlood) {
    for (int i = 0; i < 200; ++i) {
        exchange(station, 1, sRegistration(8, 8, "", 1));
    }
    loggedLines().clear();
    exchange(station, 1, sRegistration(7, 7, "", 1));
    exchange(station, 1, sRegistration(7, 0, "", 1));
    exchange(station, 1, sRegistration(7, 8));
    exchange(station, 1, sRegistration(7, 7, sEncryptedTicket(9, kNow), 1));
    exchange(station, 1, sRegistration(7, 7, sEncryptedTicket(7, kNow - 5000), 1));
    EXPECT_THAT(loggedLines(), IsEmpty());
    EXPECT_THAT(client.sReceived(), IsEmpty());
}

TEST_F(UdpRefusal, OfOthersInAFloodKeepsNoGoodRegistrationOut) {
    for (int i = 0; i < 300; ++i) {
        exchange(station, 1, sRegistration(8, 8, "", 1));
    }
    loggedLines().clear();
    EXPECT_TRUE(bAccepts(sRegistration(7, 0, sEncryptedTicket(7, kNow), 1)));
    ASSERT_GE(loggedLines().size(), 3U);
    EXPECT_EQ("UDP registration messages from source 7, program_idx 1, addr 127.0.0.2\n",
              loggedLines()[0]);
    EXPECT_EQ("client ID in relay connect message came back as zero\n", loggedLines()[1]);
    EXPECT_EQ(string_format("Client 7 registered to rx audio program 1 at 127.0.0.2(%d)\n",
                            station.nPort()),
              loggedLines().back());
}

}  // namespace
