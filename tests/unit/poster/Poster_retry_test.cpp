#include "tests/unit/poster/poster_fixture.h"

namespace {

using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::ElementsAreArray;
using Then = HttpAnswer::Then;

constexpr char kDropping[] = "Dropping data packets, max number of connsecutive errors exceeded\n";

/// Begins while the endpoint refuses connections.
class PosterRetry : public PosterFixture {
  protected:
    PosterRetry() {
        poster_.setDestination(endpoint_.sURL());
        endpoint_.goAway();
    }

    [[nodiscard]] bool bStaysAtRefusals(int nWanted) {
        return bStays([&] { return nRefusals() == nWanted; });
    }
    /// The next attempt comes after two seconds, no sooner and no later.
    void expectThePause() {
        const int nBefore = nRefusals();
        EXPECT_TRUE(bStaysAtRefusals(nBefore));
        advanceClockForTest(milliseconds(1999));
        EXPECT_TRUE(bStaysAtRefusals(nBefore));
        advanceClockForTest(milliseconds(1));
        EXPECT_TRUE(bIsRefused(nBefore + 1));
    }
    [[nodiscard]] bool bHasPrintedTimes(const std::string& sText, int nTimes) const {
        return bEventually([&] { return nPrinted(sText) >= nTimes; }) && nPrinted(sText) == nTimes;
    }
    static std::string sCount(int nErrors) {
        return "Consecutive retry errors: " + std::to_string(nErrors) + '\n';
    }
    static std::string sDropped(int nDropped) {
        return kDropping + ("Dropped " + std::to_string(nDropped)) + " packets\n";
    }
    void failTenTimes() {
        ASSERT_TRUE(bIsRefused(1));
        ASSERT_TRUE(bIsRefusedAfterPauses(10));
    }
    /// The endpoint answers `nRequests`, the last one with `nStatus`, and then refuses again.
    void comeBackFor(int nRequests, int nStatus) {
        endpoint_.plan(answerWith(200), nRequests - 1);
        endpoint_.plan({answerWith(nStatus).sAtOnce, "", Then::kGoAway});
        endpoint_.comeBack();
    }
};

TEST_F(PosterRetry, ReportsThatItCannotConnect) {
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasStatus("Can't connect to server"));
    EXPECT_TRUE(bHasPrinted("ERROR: error sending POST (code 7) for 7 bytes\n" + sCount(1)));
    EXPECT_EQ(0, nPrinted("Won't retry"));
    EXPECT_EQ(0, poster_.getLastOK());
}

TEST_F(PosterRetry, PausesTwoSecondsBetweenAttempts) {
    poster_.queuePayload("payload");
    ASSERT_TRUE(bIsRefused(1));
    expectThePause();
}

TEST_F(PosterRetry, PausesNoLongerWhenTheWallClockIsSetBack) {
    poster_.queuePayload("payload");
    ASSERT_TRUE(bIsRefused(1));
    EXPECT_TRUE(bStaysAtRefusals(1));
    setClockForTest(kStart - 86'400);
    advanceClockForTest(2);
    EXPECT_TRUE(bIsRefused(2));
}

TEST_F(PosterRetry, DeliversAllInOrderOnceTheServerIsBack) {
    queueAtOnce(payloads(0, 12));
    ASSERT_TRUE(bIsRefused(1));
    ASSERT_TRUE(bIsRefusedAfterPauses(3));
    endpoint_.comeBack();
    ASSERT_TRUE(bHoldsAfterPauses([&] { return endpoint_.nRequests() == 12; }));
    EXPECT_THAT(endpoint_.bodies(), ElementsAreArray(payloads(0, 12)));
    EXPECT_TRUE(bHasStatus("HTTP OK"));
}

TEST_F(PosterRetry, CountsFailuresUpToNine) {
    poster_.queuePayload("payload");
    ASSERT_NO_FATAL_FAILURE(failTenTimes());
    EXPECT_TRUE(bHasPrinted(kDropping));
    for (int i = 1; i <= 9; ++i) {
        EXPECT_EQ(1, nPrinted(sCount(i))) << i;
    }
    EXPECT_EQ(0, nPrinted(sCount(10)));
}

TEST_F(PosterRetry, KeepsTheNewest20Of35AfterTenFailures) {
    queueAtOnce(payloads(0, 35));
    ASSERT_TRUE(bIsRefused(1));
    ASSERT_TRUE(bIsRefusedAfterPauses(9));
    EXPECT_TRUE(bHasPrinted(sCount(9)));
    EXPECT_EQ(0, nPrinted("Dropp"));
    EXPECT_EQ(25U, poster_.getPayloadQueueSize());
    ASSERT_TRUE(bIsRefusedAfterPauses(10));
    EXPECT_TRUE(bHasPrinted("(code 7) for 2 bytes\n" + sDropped(15)));
    EXPECT_EQ(20U, poster_.getPayloadQueueSize());
    endpoint_.comeBack();
    ASSERT_TRUE(bHoldsAfterPauses([&] { return endpoint_.nRequests() == 20; }));
    EXPECT_THAT(endpoint_.bodies(), ElementsAreArray(payloads(15, 35)));
    EXPECT_TRUE(bHasStatus("HTTP OK"));
    EXPECT_EQ(0U, poster_.getPayloadQueueSize());
}

TEST_F(PosterRetry, DropsNothingWhile20OrLessWait) {
    queueAtOnce(payloads(0, 20));
    ASSERT_NO_FATAL_FAILURE(failTenTimes());
    EXPECT_TRUE(bHasPrinted(sDropped(0)));
    endpoint_.comeBack();
    ASSERT_TRUE(bHoldsAfterPauses([&] { return endpoint_.nRequests() == 20; }));
    EXPECT_THAT(endpoint_.bodies(), ElementsAreArray(payloads(0, 20)));
}

TEST_F(PosterRetry, DropsTheBatchBeforeTheQueue) {
    queueAtOnce(payloads(0, 23));
    ASSERT_NO_FATAL_FAILURE(failTenTimes());
    EXPECT_TRUE(bHasPrinted(sDropped(3)));
    EXPECT_EQ(13U, poster_.getPayloadQueueSize());
    endpoint_.comeBack();
    ASSERT_TRUE(bHoldsAfterPauses([&] { return endpoint_.nRequests() == 20; }));
    EXPECT_THAT(endpoint_.bodies(), ElementsAreArray(payloads(3, 23)));
}

TEST_F(PosterRetry, PausesAlsoAfterTheTenthFailure) {
    queueAtOnce(payloads(0, 3));
    ASSERT_NO_FATAL_FAILURE(failTenTimes());
    expectThePause();
    EXPECT_TRUE(bHasPrintedTimes(sDropped(0), 2));
}

TEST_F(PosterRetry, PausesAlsoWhenTheWholeBatchWasDropped) {
    queueAtOnce(payloads(0, 35));
    ASSERT_NO_FATAL_FAILURE(failTenTimes());
    expectThePause();
    expectThePause();
    EXPECT_TRUE(bHasPrintedTimes(sDropped(0), 2));
}

TEST_F(PosterRetry, DropsAgainAfterEachFurtherFailure) {
    queueAtOnce(payloads(0, 23));
    ASSERT_NO_FATAL_FAILURE(failTenTimes());
    EXPECT_TRUE(bHasPrinted(sDropped(3)));
    for (const std::string& sText : payloads(23, 28)) {
        poster_.queuePayload(sText);
    }
    ASSERT_TRUE(bIsRefusedAfterPauses(11));
    EXPECT_TRUE(bHasPrinted(sDropped(5)));
    EXPECT_EQ(1, nPrinted(sCount(1)));
    endpoint_.comeBack();
    ASSERT_TRUE(bHoldsAfterPauses([&] { return endpoint_.nRequests() == 20; }));
    EXPECT_THAT(endpoint_.bodies(), ElementsAreArray(payloads(8, 28)));
}

TEST_F(PosterRetry, DropsAgainAlsoWhenTheWholeBatchWasDropped) {
    queueAtOnce(payloads(0, 35));
    ASSERT_NO_FATAL_FAILURE(failTenTimes());
    EXPECT_TRUE(bHasPrinted(sDropped(15)));
    for (const std::string& sText : payloads(35, 42)) {
        poster_.queuePayload(sText);
    }
    ASSERT_TRUE(bIsRefusedAfterPauses(11));
    EXPECT_TRUE(bHasPrinted(sDropped(7)));
    EXPECT_EQ(1, nPrinted(sCount(1)));
    endpoint_.comeBack();
    ASSERT_TRUE(bHoldsAfterPauses([&] { return endpoint_.nRequests() == 20; }));
    EXPECT_THAT(endpoint_.bodies(), ElementsAreArray(payloads(22, 42)));
}

TEST_F(PosterRetry, RestartsCountingAfterADelivery) {
    queueAtOnce(payloads(0, 3));
    ASSERT_TRUE(bIsRefused(1));
    ASSERT_TRUE(bIsRefusedAfterPauses(3));
    comeBackFor(1, 200);
    ASSERT_TRUE(bHoldsAfterPauses([&] { return nRefusals() == 4; }));
    EXPECT_TRUE(bHasPrintedTimes(sCount(1), 2));
    EXPECT_EQ(0, nPrinted(sCount(4)));
    EXPECT_THAT(endpoint_.bodies(), ElementsAre("p0"));
}

TEST_F(PosterRetry, RestartsCountingAfterADeliveryThatEndsTheDropping) {
    queueAtOnce(payloads(0, 35));
    ASSERT_NO_FATAL_FAILURE(failTenTimes());
    comeBackFor(1, 200);
    ASSERT_TRUE(bHoldsAfterPauses([&] { return nRefusals() == 11; }));
    EXPECT_TRUE(bHasPrintedTimes(sCount(1), 2));
    EXPECT_EQ(1, nPrinted("Dropping"));
    EXPECT_THAT(endpoint_.bodies(), ElementsAre("p15"));
}

TEST_F(PosterRetry, CountsNoAnswerThatIsNot200) {
    queueAtOnce(payloads(0, 3));
    ASSERT_TRUE(bIsRefused(1));
    ASSERT_TRUE(bIsRefusedAfterPauses(2));
    comeBackFor(1, 500);
    ASSERT_TRUE(bHoldsAfterPauses([&] { return nRefusals() == 3; }));
    EXPECT_TRUE(bHasPrinted("Won't retry\nERROR: error sending POST (code 7) for 2 bytes\n"));
    EXPECT_TRUE(bHasPrintedTimes(sCount(3), 1));  // and it does not restart
    EXPECT_THAT(endpoint_.bodies(), ElementsAre("p0"));
}

TEST_F(PosterRetry, CountsOtherTransportErrors) {
    endpoint_.comeBack();
    endpoint_.plan(noAnswer(Then::kGoAway));
    queueAtOnce(payloads(0, 2));
    ASSERT_TRUE(bIsRefused(1));
    EXPECT_TRUE(bHasPrinted("(code 52) for 2 bytes\nWon't retry\n"));
    EXPECT_TRUE(bHasPrintedTimes(sCount(2), 1));
    EXPECT_EQ(0, nPrinted(sCount(1)));
}

TEST_F(PosterRetry, DropsAtTheTenthErrorWhateverTheOthersWere) {
    endpoint_.comeBack();
    endpoint_.plan(noAnswer(Then::kClose), 8);
    endpoint_.plan(noAnswer(Then::kGoAway));
    queueAtOnce(payloads(0, 31));
    ASSERT_TRUE(bIsRefused(1));
    EXPECT_TRUE(bHasPrinted(sDropped(2)));
    EXPECT_EQ(9, nPrinted("Won't retry\n"));
}

TEST_F(PosterRetry, RestartsCountingWithEachBatch) {
    endpoint_.comeBack();
    endpoint_.plan(noAnswer(Then::kGoAway));
    poster_.queuePayload("p0");
    ASSERT_TRUE(bHasPrinted("Won't retry\n"));
    poster_.queuePayload("p1");
    ASSERT_TRUE(bIsRefused(1));
    EXPECT_TRUE(bHasPrintedTimes(sCount(1), 1));
}

TEST_F(PosterRetry, RestartsCountingAfterAnInterruption) {
    queueAtOnce(payloads(0, 35));
    ASSERT_NO_FATAL_FAILURE(failTenTimes());
    poster_._interruptWorkThread();
    poster_.queuePayload("p35");
    ASSERT_TRUE(bIsRefused(11));
    EXPECT_TRUE(bHasPrintedTimes(sCount(1), 2));
    EXPECT_EQ(1, nPrinted("Dropping"));
}

}  // namespace
