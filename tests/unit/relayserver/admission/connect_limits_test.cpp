#include "relayserver/admission/connect_limits.h"

#include "base/clock.h"
#include "tests/unit/relayserver/engine_fixture.h"

namespace {

class ConnectLimits : public EngineTest {
  protected:
    /// How many of `nCalls` connections are accepted.
    static int nAccepted(const std::string& sAddress, int nCalls) {
        int nCount = 0;
        for (int i = 0; i < nCalls; ++i) {
            nCount += CheckIPAddrConnectLimit(sAddress) ? 1 : 0;
        }
        return nCount;
    }

    static int nLoggedIn(unsigned nClientID, int nCalls) {
        int nCount = 0;
        for (int i = 0; i < nCalls; ++i) {
            nCount += CheckTicketIDConnectLimit(nClientID) ? 1 : 0;
        }
        return nCount;
    }
};

TEST_F(ConnectLimits, AcceptsNinetyNineConnectionsOfAnAddressInAPeriod) {
    EXPECT_EQ(99, nAccepted("127.0.0.1", 99));
}

TEST_F(ConnectLimits, RefusesTheHundredthOfAPeriodAndLater) {
    EXPECT_EQ(99, nAccepted("127.0.0.1", 99));
    EXPECT_FALSE(CheckIPAddrConnectLimit("127.0.0.1"));
    EXPECT_EQ(0, nAccepted("127.0.0.1", 10));
}

TEST_F(ConnectLimits, CountsEachAddressForItself) {
    EXPECT_EQ(99, nAccepted("127.0.0.1", 100));
    EXPECT_EQ(99, nAccepted("127.0.0.2", 100));
}

TEST_F(ConnectLimits, APeriodLastsTenSecondsAndTheTenthStillBelongsToIt) {
    EXPECT_EQ(99, nAccepted("127.0.0.1", 100));
    advanceClockForTest(10);
    EXPECT_FALSE(CheckIPAddrConnectLimit("127.0.0.1"));
}

TEST_F(ConnectLimits, AfterMoreThanTenSecondsTheCountStartsAgainFromOne) {
    EXPECT_EQ(99, nAccepted("127.0.0.1", 100));
    advanceClockForTest(11);
    EXPECT_TRUE(CheckIPAddrConnectLimit("127.0.0.1"));
    EXPECT_EQ(1, ipAcceptHistory.at("127.0.0.1"));
    EXPECT_EQ(98, nAccepted("127.0.0.1", 100));
}

TEST_F(ConnectLimits, ANewPeriodBeginsWithTheConnectionThatOpensIt) {
    EXPECT_TRUE(CheckIPAddrConnectLimit("127.0.0.1"));
    advanceClockForTest(25);
    EXPECT_TRUE(CheckIPAddrConnectLimit("127.0.0.1"));
    EXPECT_EQ(kNow + 25, ttIPCheckCurrPeriodStart);
}

TEST_F(ConnectLimits, AClockSetBackDoesNotStretchThePeriod) {
    EXPECT_EQ(99, nAccepted("127.0.0.1", 100));
    advanceClockForTest(-3600);
    EXPECT_TRUE(CheckIPAddrConnectLimit("127.0.0.1"));
}

TEST_F(ConnectLimits, ANewPeriodForgetsEveryAddress) {
    EXPECT_TRUE(CheckIPAddrConnectLimit("127.0.0.1"));
    advanceClockForTest(11);
    EXPECT_TRUE(CheckIPAddrConnectLimit("127.0.0.2"));
    EXPECT_EQ(1U, ipAcceptHistory.size());
}

TEST_F(ConnectLimits, RefusesTheTenthLoginOfAnIdInAPeriod) {
    EXPECT_EQ(9, nLoggedIn(7, 9));
    EXPECT_FALSE(CheckTicketIDConnectLimit(7));
    EXPECT_TRUE(CheckTicketIDConnectLimit(8));
}

TEST_F(ConnectLimits, AnIdMayLogInAgainAfterMoreThanTenSeconds) {
    EXPECT_EQ(9, nLoggedIn(7, 12));
    advanceClockForTest(10);
    EXPECT_FALSE(CheckTicketIDConnectLimit(7));
    advanceClockForTest(1);
    EXPECT_EQ(9, nLoggedIn(7, 12));
}

TEST_F(ConnectLimits, AddressesAndIdsHavePeriodsOfTheirOwn) {
    EXPECT_TRUE(CheckIPAddrConnectLimit("127.0.0.1"));
    advanceClockForTest(5);
    EXPECT_EQ(9, nLoggedIn(7, 10));
    advanceClockForTest(6);
    EXPECT_TRUE(CheckIPAddrConnectLimit("127.0.0.1"));  // a new period for addresses only
    EXPECT_FALSE(CheckTicketIDConnectLimit(7));
}

}  // namespace
