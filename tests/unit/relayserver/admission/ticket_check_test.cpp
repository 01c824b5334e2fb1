#include "relayserver/admission/ticket_check.h"

#include "base/ip_utils.h"
#include "base/string_format.h"
#include "relayserver/admission/connect_limits.h"
#include "relayserver/settings/session_keys.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/admission/ticket_maker.h"
#include "tests/unit/relayserver/engine_fixture.h"

namespace {

class TicketCheck : public EngineTest {
  protected:
    TicketCheck() {
        makeSessionKey();
        loggedLines().clear();
    }

    static bool bAdmits(unsigned nClaimedID, const std::string& sTicket,
                        TicketLog log = TicketLog::kTell) {
        const std::string sImage = sLoginImage(nClaimedID, sTicket);
        in_addr iaPeer{};
        EXPECT_TRUE(bParseIPv4("10.1.2.3", iaPeer));
        return CheckTicket(
            Orvex::RelayConnectNetMessage(sImage.data(), static_cast<int>(sImage.size())), iaPeer,
            log);
    }

    static bool bAdmitsWithAge(int nAgeSecs) {
        return bAdmits(7, sEncryptedTicket(7, kNow - nAgeSecs));
    }

    static unsigned nAddress(const std::string& sAddress) {
        in_addr iaAddress{};
        EXPECT_TRUE(bParseIPv4(sAddress, iaAddress));
        return iaAddress.s_addr;
    }
};

TEST_F(TicketCheck, AdmitsAFreshTicketWithoutALine) {
    EXPECT_TRUE(bAdmitsWithAge(0));
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(TicketCheck, AdmitsUpTo299SecondsEitherWay) {
    EXPECT_TRUE(bAdmitsWithAge(299));
    EXPECT_TRUE(bAdmitsWithAge(-299));
}

TEST_F(TicketCheck, RefusesFrom300To600SecondsWithoutALine) {
    for (const int nAge : {300, -300, 600, -600}) {
        EXPECT_FALSE(bAdmitsWithAge(nAge)) << nAge;
    }
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(TicketCheck, RefusesFrom601SecondsWithALine) {
    EXPECT_FALSE(bAdmits(7, sEncryptedTicket(7, kNow - 601, "192.168.1.9")));
    EXPECT_EQ(
        std::vector<std::string>{string_format(
            "Login ticket rejected with large time mismatch - plaintext/established info - "
            "id=7, addr=%lu, time=%lu, info in ticket - id=7, addr=%u, time=%lu\n",
            static_cast<unsigned long>(nAddress("10.1.2.3")), static_cast<unsigned long>(kNow),
            nAddress("192.168.1.9"), static_cast<unsigned long>(kNow - 601))},
        loggedLines());
    EXPECT_FALSE(bAdmitsWithAge(-601));
    EXPECT_EQ(2U, loggedLines().size());
}

TEST_F(TicketCheck, RefusesATicketOfAnotherIdWithALine) {
    EXPECT_FALSE(bAdmits(8, sEncryptedTicket(7, kNow)));
    EXPECT_EQ(
        std::vector<std::string>{string_format(
            "Client login ticket rejected for registration info mismatch - "
            "plaintext/established info - id=8, addr=%lu, time=%lu, info in ticket - id=7, "
            "addr=%u, time=%lu\n",
            static_cast<unsigned long>(nAddress("10.1.2.3")), static_cast<unsigned long>(kNow),
            nAddress("127.0.0.1"), static_cast<unsigned long>(kNow))},
        loggedLines());
}

TEST_F(TicketCheck, AMismatchOfTheIdIsNamedWhateverTheTime) {
    EXPECT_FALSE(bAdmits(8, sEncryptedTicket(7, kNow - 5000)));
    EXPECT_EQ(1U, nLoggedContaining("rejected for registration info mismatch"));
    EXPECT_EQ(1U, loggedLines().size());
}

TEST_F(TicketCheck, DoesNotCompareTheAddress) {
    EXPECT_TRUE(bAdmits(7, sEncryptedTicket(7, kNow, "203.0.113.5")));
}

TEST_F(TicketCheck, RefusesAnEmptyTicketForItsLength) {
    EXPECT_FALSE(bAdmits(7, ""));
    EXPECT_EQ(std::vector<std::string>{"ticket rejected: improper length\n"}, loggedLines());
}

TEST_F(TicketCheck, RefusesWhatIsTooShortForATicket) {
    for (const size_t nLen : {1U, 7U, 8U, 15U}) {
        EXPECT_FALSE(bAdmits(7, sEncryptedTicket(7, kNow).substr(0, nLen))) << nLen;
    }
    EXPECT_EQ(4U, nLogged("ticket rejected: improper length\n"));
}

TEST_F(TicketCheck, ReadsTheFirstBlocksOfALongerTicket) {
    EXPECT_TRUE(bAdmits(7, sEncryptedTicket(7, kNow) + std::string(48, 'x')));
    EXPECT_TRUE(bAdmits(7, sEncryptedTicket(7, kNow) + "odd"));
}

TEST_F(TicketCheck, RefusesTheTicketOfAnotherSession) {
    const std::string sOld = sEncryptedTicket(7, kNow);
    makeSessionKey();
    EXPECT_FALSE(bAdmits(7, sOld));
}

TEST_F(TicketCheck, RefusesTheTenthValidTicketOfAnIdInAPeriod) {
    for (int i = 0; i < 9; ++i) {
        EXPECT_TRUE(bAdmitsWithAge(i));
    }
    EXPECT_FALSE(bAdmitsWithAge(0));
    EXPECT_EQ(std::vector<std::string>{"Rejecting ticket for client 7 based on temporary "
                                       "connection limits for this ID!\n"},
              loggedLines());
}

TEST_F(TicketCheck, OnlyValidTicketsCountAsLogins) {
    EXPECT_FALSE(bAdmitsWithAge(400));
    EXPECT_FALSE(bAdmits(8, sEncryptedTicket(7, kNow)));
    EXPECT_TRUE(idTixAcceptHistory.empty());
}

TEST_F(TicketCheck, ShowsIdsAboveTheSignedRangeUnsigned) {
    EXPECT_TRUE(bAdmits(4000000000U, sEncryptedTicket(4000000000U, kNow)));
    EXPECT_FALSE(bAdmits(4000000000U, sEncryptedTicket(7, kNow)));
    EXPECT_EQ(1U, nLoggedContaining(" - id=4000000000, addr="));
}

TEST_F(TicketCheck, CanRejectForEveryReasonInSilence) {
    EXPECT_FALSE(bAdmits(7, "", TicketLog::kQuiet));
    EXPECT_FALSE(bAdmits(7, sEncryptedTicket(7, kNow).substr(0, 15), TicketLog::kQuiet));
    EXPECT_FALSE(bAdmits(8, sEncryptedTicket(7, kNow), TicketLog::kQuiet));
    EXPECT_FALSE(bAdmits(7, sEncryptedTicket(7, kNow - 601), TicketLog::kQuiet));
    for (int i = 0; i < 9; ++i) {
        EXPECT_TRUE(bAdmits(7, sEncryptedTicket(7, kNow), TicketLog::kQuiet));
    }
    EXPECT_FALSE(bAdmits(7, sEncryptedTicket(7, kNow), TicketLog::kQuiet));
    EXPECT_TRUE(loggedLines().empty());
}

TEST_F(TicketCheck, CountsLogInsInSilenceAsWell) {
    for (int i = 0; i < 9; ++i) {
        EXPECT_TRUE(bAdmits(7, sEncryptedTicket(7, kNow), TicketLog::kQuiet));
    }
    EXPECT_FALSE(bAdmitsWithAge(0));
    EXPECT_EQ(1U, nLoggedContaining("Rejecting ticket for client 7"));
}

}  // namespace
