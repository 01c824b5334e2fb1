#include "tests/unit/poster/poster_fixture.h"

namespace {

using testing::ElementsAre;
using Then = HttpAnswer::Then;

class PosterSequence : public PosterFixture {
  protected:
    PosterSequence() {
        poster_.setDestination(endpoint_.sURL("/archive?station=3"));
        poster_.appendSeqToURI(true);
    }

    /// What follows the base address in each request.
    std::vector<std::string> numbers() {
        std::vector<std::string> texts;
        for (const HttpRequest& request : endpoint_.requests()) {
            texts.push_back(request.sTarget.substr(request.sTarget.find('&')));
        }
        return texts;
    }
    int nTraces(int nNumber) const {
        return nPrinted("TRACE: URL set to " + endpoint_.sURL("/archive?station=3&seq=") +
                        std::to_string(nNumber) + '\n');
    }
};

TEST_F(PosterSequence, IsLeftOutUnlessAskedFor) {
    poster_.appendSeqToURI(false);
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasRequests(1));
    EXPECT_EQ("/archive?station=3", endpoint_.requests().at(0).sTarget);
    EXPECT_EQ(0, nPrinted("TRACE"));
}

TEST_F(PosterSequence, BeginsAtTwoAndRisesWithEachPayload) {
    queueAtOnce(payloads(0, 3));
    ASSERT_TRUE(bHasRequests(3));
    EXPECT_THAT(numbers(), ElementsAre("&seq=2", "&seq=3", "&seq=4"));
    EXPECT_EQ(1, nTraces(2));
    EXPECT_EQ(1, nTraces(3));
    EXPECT_EQ(1, nTraces(4));
}

TEST_F(PosterSequence, RisesOverBatches) {
    queueAtOnce(payloads(0, 11));
    ASSERT_TRUE(bHasRequests(11));
    EXPECT_EQ("&seq=12", numbers().back());
}

TEST_F(PosterSequence, RisesAfterAnAnswerThatIsNot200) {
    endpoint_.plan(answerWith(500));
    queueAtOnce(payloads(0, 2));
    ASSERT_TRUE(bHasRequests(2));
    EXPECT_THAT(numbers(), ElementsAre("&seq=2", "&seq=3"));
}

TEST_F(PosterSequence, StaysWithARetryAndCountsItAnyway) {
    endpoint_.goAway();
    queueAtOnce(payloads(0, 2));
    ASSERT_TRUE(bIsRefused(1));             // 2
    ASSERT_TRUE(bIsRefusedAfterPauses(3));  // 3 and 4
    endpoint_.comeBack();
    ASSERT_TRUE(bHoldsAfterPauses([&] { return endpoint_.nRequests() == 2; }));  // 5 and 6
    EXPECT_THAT(endpoint_.bodies(), ElementsAre("p0", "p1"));
    EXPECT_THAT(numbers(), ElementsAre("&seq=2", "&seq=6"));
    EXPECT_EQ(2, nPrinted("TRACE: URL set to "));
}

TEST_F(PosterSequence, StaysAfterAnErrorThatWasCounted) {
    endpoint_.plan(noAnswer(Then::kClose));
    queueAtOnce(payloads(0, 3));
    ASSERT_TRUE(bHasRequests(3));
    EXPECT_THAT(endpoint_.bodies(), ElementsAre("p0", "p1", "p2"));
    EXPECT_THAT(numbers(), ElementsAre("&seq=2", "&seq=2", "&seq=4"));
}

TEST_F(PosterSequence, StaysWhenTheFirstPayloadsWereDropped) {
    endpoint_.goAway();
    queueAtOnce(payloads(0, 35));
    ASSERT_TRUE(bIsRefused(1));
    ASSERT_TRUE(bIsRefusedAfterPauses(10));
    endpoint_.comeBack();
    ASSERT_TRUE(bHoldsAfterPauses([&] { return endpoint_.nRequests() == 20; }));
    EXPECT_EQ("p15", endpoint_.bodies().front());
    EXPECT_EQ("&seq=2", numbers().at(0));
    EXPECT_EQ("&seq=13", numbers().at(1));
}

TEST_F(PosterSequence, ContinuesWhenTheSameDestinationIsSetAgain) {
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    poster_._interruptWorkThread();
    poster_.setDestination(endpoint_.sURL("/archive?station=3"));
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasRequests(2));
    EXPECT_THAT(numbers(), ElementsAre("&seq=2", "&seq=3"));
}

TEST_F(PosterSequence, RestartsWithANewDestination) {
    queueAtOnce(payloads(0, 3));
    ASSERT_TRUE(bHasRequests(3));
    poster_._interruptWorkThread();
    poster_.setDestination(endpoint_.sURL("/archive?station=4"));
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasRequests(4));
    EXPECT_EQ("/archive?station=4&seq=2", endpoint_.requests().at(3).sTarget);
}

/// A number that does not fit makes the address a bad one, which is neither retried nor counted:
/// if it were counted, the payload after it would go to the last good address.
TEST_F(PosterSequence, MakesABadAddressWhereItDoesNotFit) {
    std::string sURL = endpoint_.sURL("/archive?fill=");
    sURL.append(1017 - sURL.size(), 'x');
    poster_.setDestination(sURL);
    queueAtOnce(payloads(0, 10));
    ASSERT_TRUE(bHasRequests(8));
    ASSERT_TRUE(bHasStatus("Can't resolve URL"));
    ASSERT_TRUE(bEventually([&] { return nPrinted("Won't retry\n") == 2; }));
    EXPECT_EQ("&seq=9", numbers().back());
    EXPECT_EQ(8U, endpoint_.nRequests());
    EXPECT_EQ(2, nPrinted("ERROR: error sending POST (code 3) for 2 bytes\n"));
}

}  // namespace
