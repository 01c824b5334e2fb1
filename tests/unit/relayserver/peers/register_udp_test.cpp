#include "relayserver/peers/register_udp.h"

#include <algorithm>
#include <chrono>
#include <limits>

#include "base/clock.h"
#include "base/ip_utils.h"
#include "base/string_format.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"
#include "tests/unit/relayserver/loopback.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Client 8 is a relay on 127.0.0.8 with a ticket of 16 bytes.
class RegisterUdpTest : public AudioTest {
  protected:
    RegisterUdpTest() : relay(addRelayPeer(8, 8, audio)) {}

    static int registerAll() { return RegisterUdp(authClient(8), true, true, true, kAllPrograms); }

    /// The datagram that the peer receives.
    static std::string sExpected(unsigned nFlags) {
        return sDatagram(kRelayID, sImage(19, kRelayID, nFlags, "500~a stored ticket!~"));
    }

    /// Until the system stamps datagrams when they arrive: at first only when they are read.
    static void awaitArrivalTimes() {
        const Station station(2);
        const std::time_t ttDeadline = std::time(nullptr) + 5;
        while (std::time(nullptr) < ttDeadline) {
            station.sendTo(station.siAddress(), "x");
            const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
            if (station.nNanosOfNext() <=
                std::chrono::duration_cast<std::chrono::nanoseconds>(sinceEpoch).count()) {
                return;
            }
        }
        ADD_FAILURE() << "no arrival times";
    }

    /// The only datagram at one socket of the peer.
    std::string sAt(int nChannel, int nProgram) const {
        const std::vector<std::string> received = audio.of(nChannel, nProgram).received();
        return received.size() == 1 ? received[0] : string_format("%zu", received.size());
    }

    const PeerAudio audio{8};
    const Peer relay;
};

TEST_F(RegisterUdpTest, SendsTheTicketToEverySocketOfThePeer) {
    EXPECT_EQ(1, registerAll());
    for (int nChannel = 0; nChannel < 3; ++nChannel) {
        for (int i = 0; i < kAudioPrograms; ++i) {
            EXPECT_EQ(sExpected(7), sAt(nChannel, i)) << nChannel << ' ' << i;
        }
    }
    EXPECT_THAT(loggedLines(),
                ElementsAre(string_format("debug: registering udp with relay peer 8 on udp ports "
                                          "with base %d\n",
                                          audio.nBasePort())));
}

TEST_F(RegisterUdpTest, SendsFromTheSocketOfTheSameKind) {
    (void)registerAll();
    for (int i = 0; i < kAudioPrograms; ++i) {
        EXPECT_EQ(nLocalPort(udp_listen_sockfd[i]), audio.of(0, i).nPortOfNext());
        EXPECT_EQ(nLocalPort(udp_fec1_sockfd[i]), audio.of(1, i).nPortOfNext());
        EXPECT_EQ(nLocalPort(udp_fec2_sockfd[i]), audio.of(2, i).nPortOfNext());
    }
}

TEST_F(RegisterUdpTest, SendsNothingToCorrectionSocketsWithoutCorrection) {
    bFecEnable = false;
    (void)registerAll();
    EXPECT_EQ(6U, audio.nReceived());
}

TEST_F(RegisterUdpTest, SaysByFlagsWhatIsWanted) {
    const auto sWith = [&](bool bRx, bool bTx, bool bCallback) {
        (void)RegisterUdp(authClient(8), bRx, bTx, bCallback, 2);
        return sAt(0, 2);
    };
    EXPECT_EQ(sExpected(1), sWith(true, false, false));
    EXPECT_EQ(sExpected(4), sWith(false, true, false));
    EXPECT_EQ(sExpected(2), sWith(false, false, true));
    EXPECT_EQ(sExpected(0), sWith(false, false, false));
    EXPECT_EQ(sExpected(5), sWith(true, true, false));
}

TEST_F(RegisterUdpTest, RegistersOneProgramOnly) {
    for (const int nProgram : {0, 5}) {
        (void)RegisterUdp(authClient(8), true, true, true, nProgram);
        for (int nChannel = 0; nChannel < 3; ++nChannel) {
            EXPECT_EQ(sExpected(7), sAt(nChannel, nProgram));
        }
        EXPECT_EQ(0U, audio.nReceived());
    }
}

TEST_F(RegisterUdpTest, SendsTheMainRegistrationsBeforeThoseOfErrorCorrection) {
    awaitArrivalTimes();
    (void)registerAll();
    long long nLastMain = 0;
    long long nFirstCorrection = std::numeric_limits<long long>::max();
    for (int i = 0; i < kAudioPrograms; ++i) {
        nLastMain = std::max(nLastMain, audio.of(0, i).nNanosOfNext());
        for (const int nChannel : {1, 2}) {
            nFirstCorrection = std::min(nFirstCorrection, audio.of(nChannel, i).nNanosOfNext());
        }
    }
    EXPECT_GT(nLastMain, 0);
    EXPECT_LE(nLastMain, nFirstCorrection);
}

TEST_F(RegisterUdpTest, EscapesTheTicket) {
    const unsigned char achTicket[] = {'~', 0, '\\', 'x'};
    authClient(8).SetTicket(achTicket, 4);
    (void)RegisterUdp(authClient(8), true, false, false, 1);
    EXPECT_EQ(sDatagram(kRelayID, sImage(19, kRelayID, 1, std::string("500~\\~\\\0\\\\x~", 12))),
              sAt(0, 1));
}

TEST_F(RegisterUdpTest, UsesATicketOf299Seconds) {
    advanceClockForTest(299);
    EXPECT_EQ(1, registerAll());
    EXPECT_EQ(18U, audio.nReceived());
}

TEST_F(RegisterUdpTest, AsksForAnotherAfter300Seconds) {
    const Peer link = openLink();
    advanceClockForTest(300);
    EXPECT_EQ(1, registerAll());
    EXPECT_EQ(0U, audio.nReceived());
    EXPECT_THAT(loggedLines(), ElementsAre("retrieving a new ticket for udp registration to "
                                           "client 8 at 127.0.0.8\n"));
    EXPECT_EQ(sFrame(sImage(20, kRelayID, 0, "8~UDP_REG~")), link.sReceived());
}

TEST_F(RegisterUdpTest, AsksWhenThereIsNone) {
    const Peer link = openLink();
    authClient(8).SetTicket(nullptr, 0);
    EXPECT_EQ(1, registerAll());
    EXPECT_EQ(1U, link.images().size());
    EXPECT_EQ(0U, audio.nReceived());
}

TEST_F(RegisterUdpTest, AsksNoMoreThanOnceInSixSeconds) {
    const Peer link = openLink();
    authClient(8).SetTicket(nullptr, 0);
    (void)registerAll();
    loggedLines().clear();
    advanceClockForTest(5);
    EXPECT_EQ(1, registerAll());
    EXPECT_THAT(loggedLines(),
                ElementsAre("last ticket request for udp reg to relay 8 still pending\n"));
    EXPECT_EQ(1U, link.images().size());
    advanceClockForTest(1);
    (void)registerAll();
    EXPECT_EQ(1U, link.images().size());
}

TEST_F(RegisterUdpTest, APeerWithoutABasePortIsToldAtItsAddressAlone) {
    const Peer unnamed = addAuthClient(10);
    setTcpAddress(10, 8);
    const unsigned char achTicket[] = "t";
    authClient(10).SetTicket(achTicket, 1);
    EXPECT_EQ(1, RegisterUdp(authClient(10), true, true, true, 0));  // to port 0: refused
    EXPECT_EQ(1U, nLogged("debug: registering udp with relay peer 10 on udp ports with base 0\n"));
}

}  // namespace
