#include "base/string_format.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class UdpDiscard : public AudioTest {
  protected:
    /// How many more datagrams from unknown senders are discarded until one is reported.
    size_t nUntilReport() const {
        loggedLines().clear();
        for (size_t nSent = 1; nSent < 3000; ++nSent) {
            exchange(stranger, 1, sDatagram(77, "noise"));
            if (!loggedLines().empty()) {
                return nSent;
            }
        }
        return 0;
    }

    void discard(size_t nCount) const {
        for (size_t i = 0; i < nCount; ++i) {
            exchange(stranger, 1, sDatagram(77, "noise"));
        }
    }

    const Station stranger{2};
};

TEST_F(UdpDiscard, ReportsTheOneAfterTheCounterHasPassedAThousand) {
    EXPECT_EQ(1002U, nUntilReport());
    EXPECT_EQ(1002U, nUntilReport());  // the counter starts again
}

TEST_F(UdpDiscard, SaysWhereItCameFromAndWhatItWas) {
    discard(1001);
    EXPECT_THAT(loggedLines(), IsEmpty());
    exchange(stranger, 5, sDatagram(4000000000U, std::string("A\x01~", 3)));
    EXPECT_THAT(
        loggedLines(),
        ElementsAre(string_format("UDP packets from un-registered source 127.0.0.2(%d) (marked "
                                  "ID=4000000000) being discarded (audio program 5).\n",
                                  stranger.nPort()),
                    "message contents:\n", "[0][0][0][0][0][0][0][0][0][0][0][0][0](k[238]A[1]~",
                    "\n"));
}

TEST_F(UdpDiscard, ShowsALongOneAsFarAsItWasReceived) {
    discard(1001);
    exchange(stranger, 1, sDatagram(77, std::string(3000, 'l')));
    ASSERT_EQ(4U, loggedLines().size());
    EXPECT_EQ(std::string(2032, 'l'), loggedLines()[2].substr(loggedLines()[2].find('l')));
}

TEST_F(UdpDiscard, CountsNoneShorterThanThePrefix) {
    discard(1001);
    exchange(stranger, 1, std::string(15, '\0'));
    exchange(stranger, 1, "");
    EXPECT_THAT(loggedLines(), IsEmpty());
    discard(1);
    EXPECT_EQ(4U, loggedLines().size());
}

TEST_F(UdpDiscard, CountsABarePrefix) {
    discard(1001);
    exchange(stranger, 1, sDatagram(77, ""));
    EXPECT_EQ(1U, nLogged("message contents:\n"));
}

TEST_F(UdpDiscard, ABarePrefixHasNoTypeWhateverItsBufferHeldBefore) {
    // The same buffer has just held a registration, whose type would still follow the 16
    // bytes, and the marked id ends like one.
    exchange(stranger, 1, sRegistration(77, 1));
    ASSERT_EQ(1U, nLoggedContaining("UDP registration messages"));
    loggedLines().clear();
    exchange(stranger, 1, sDatagram(0x7E000001U, ""));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(UdpDiscard, ADatagramThatDoesNotEndLikeARegistrationIsNone) {
    const std::string sWhole = sRegistration(77, 1);
    exchange(stranger, 1, sWhole.substr(0, sWhole.size() - 1));
    exchange(stranger, 1, sWhole + "x");
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(UdpDiscard, ADatagramOfAnotherTypeIsNoRegistration) {
    exchange(stranger, 1, sDatagram(77, sImage(20, 77, 1, "77~ticket~")));
    exchange(stranger, 1, sDatagram(77, "\x13"));
    exchange(stranger, 1, sDatagram(77, "~"));
    EXPECT_THAT(loggedLines(), IsEmpty());
    exchange(stranger, 1, sDatagram(77, "\x13~"));
    EXPECT_EQ(1U, nLoggedContaining("UDP registration messages from source 77"));
}

TEST_F(UdpDiscard, ARegistrationThatIsRefusedIsNotDiscarded) {
    discard(1001);
    loggedLines().clear();
    exchange(stranger, 1, sRegistration(77, 77, "", 1));
    EXPECT_EQ(0U, nLogged("message contents:\n"));
}

TEST_F(UdpDiscard, DatagramsFromUnknownSendersCauseNoQuery) {
    discard(3);
    EXPECT_THAT(executedStatements(), IsEmpty());
}

}  // namespace
