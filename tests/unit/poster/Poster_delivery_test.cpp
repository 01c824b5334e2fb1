#include <string>

#include "tests/unit/poster/poster_fixture.h"

namespace {

using testing::ElementsAreArray;
using Then = HttpAnswer::Then;

class PosterDelivery : public PosterFixture {
  protected:
    PosterDelivery() { poster_.setDestination(endpoint_.sURL()); }

    /// Posts one payload, which gets `answer`, and waits for the status.
    void postAnswered(const HttpAnswer& answer, const std::string& sStatus) {
        endpoint_.plan(answer);
        poster_.queuePayload("payload");
        ASSERT_TRUE(bHasStatus(sStatus)) << poster_.getLastStatusCode();
    }
};

TEST_F(PosterDelivery, PostsThePayloadAsJson) {
    const std::string sPayload =
        "{\"S1data\" : \"1700000000.123\t9420\r\n\r\n\",\"S2data\" : \"\"}}";
    poster_.queuePayload(sPayload);
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    const HttpRequest request = endpoint_.requests().at(0);
    EXPECT_EQ("POST", request.sMethod);
    EXPECT_EQ("/archive", request.sTarget);
    EXPECT_EQ(1, request.nHeaders("Content-type"));
    EXPECT_EQ("text/json; charset=utf-8", request.sHeader("Content-type"));
    EXPECT_EQ(sPayload, request.sBody);
}

TEST_F(PosterDelivery, DeclaresTheContentTypeThatWasSet) {
    poster_.setContentType("application/json");
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasRequests(1));
    EXPECT_EQ(1, endpoint_.requests().at(0).nHeaders("Content-type"));
    EXPECT_EQ("application/json; charset=utf-8",
              endpoint_.requests().at(0).sHeader("Content-type"));
}

TEST_F(PosterDelivery, KeepsTheOrderOverManyBatches) {
    const auto texts = payloads(0, 95);
    queueAtOnce({texts.begin(), texts.begin() + 45});
    for (auto it = texts.begin() + 45; it != texts.end(); ++it) {
        poster_.queuePayload(*it);
    }
    ASSERT_TRUE(bHasRequests(95));
    EXPECT_THAT(endpoint_.bodies(), ElementsAreArray(texts));
}

TEST_F(PosterDelivery, UsesOneConnectionForAll) {
    for (const std::string& sText : payloads(0, 30)) {
        poster_.queuePayload(sText);
    }
    ASSERT_TRUE(bHasRequests(30));
    for (const HttpRequest& request : endpoint_.requests()) {
        EXPECT_EQ(1, request.nConnection);
    }
}

TEST_F(PosterDelivery, TakesTenPayloadsAtATime) {
    endpoint_.plan(heldBack(answerWith(200)));
    queueAtOnce(payloads(0, 25));
    ASSERT_TRUE(bHasRequests(1));
    EXPECT_EQ(15U, poster_.getPayloadQueueSize());
    endpoint_.plan(answerWith(200), 9);
    endpoint_.plan(heldBack(answerWith(200)));
    endpoint_.release();
    ASSERT_TRUE(bHasRequests(11));
    EXPECT_EQ(5U, poster_.getPayloadQueueSize());
    endpoint_.release();
}

TEST_F(PosterDelivery, CountsWhatWaitsAndItsBytes) {
    endpoint_.plan(heldBack(answerWith(200)));
    poster_.queuePayload("taken by the worker");
    ASSERT_TRUE(bHasRequests(1));
    poster_.queuePayload("four");
    poster_.queuePayload("sixsix", 5);
    EXPECT_EQ(2U, poster_.getPayloadQueueSize());
    EXPECT_EQ(10U, poster_.getPayloadQueueBytes());
}

TEST_F(PosterDelivery, DropsWhatWaitsWhenTheQueueIsCleared) {
    endpoint_.plan(heldBack(answerWith(200)));
    poster_.queuePayload("taken by the worker");
    ASSERT_TRUE(bHasRequests(1));
    poster_.queuePayload("cleared");
    poster_.clearQueue();
    EXPECT_EQ(0U, poster_.getPayloadQueueSize());
    EXPECT_EQ(0U, poster_.getPayloadQueueBytes());
    poster_.queuePayload("after");
    endpoint_.release();
    ASSERT_TRUE(bHasRequests(2));
    EXPECT_THAT(endpoint_.bodies(), testing::ElementsAre("taken by the worker", "after"));
}

TEST_F(PosterDelivery, NeverWaitsForTheNetworkWhenQueuing) {
    endpoint_.plan(heldBack(answerWith(200)));
    const auto tBefore = std::chrono::steady_clock::now();
    for (const std::string& sText : payloads(0, 1000)) {
        poster_.queuePayload(sText);
    }
    EXPECT_EQ("Idle", poster_.getLastStatusCode());
    EXPECT_LT(std::chrono::steady_clock::now() - tBefore, std::chrono::seconds(1));
}

TEST_F(PosterDelivery, RemembersWhenTheLastAnswerWas200) {
    postAnswered(answerWith(200), "HTTP OK");
    EXPECT_EQ(kStart, poster_.getLastOK());
    advanceClockForTest(100);
    postAnswered(answerWith(500), "HTTP 500");
    EXPECT_EQ(kStart, poster_.getLastOK());
    advanceClockForTest(100);
    postAnswered(answerWith(200), "HTTP OK");
    EXPECT_EQ(kStart + 200, poster_.getLastOK());
    EXPECT_EQ(1, nPrinted("Won't retry\n"));
}

TEST_F(PosterDelivery, DropsAPayloadWithAnyOtherAnswer) {
    for (const int nStatus : {201, 204, 301, 401, 403, 404, 500, 503}) {
        ASSERT_NO_FATAL_FAILURE(
            postAnswered(answerWith(nStatus), "HTTP " + std::to_string(nStatus)));
    }
    EXPECT_TRUE(bEventually([&] { return nPrinted("Won't retry\n") == 8; }));
    poster_.queuePayload("last");
    ASSERT_TRUE(bHasRequests(9));
    EXPECT_EQ("last", endpoint_.bodies().at(8));
    EXPECT_EQ(0, nPrinted("ERROR"));
    EXPECT_EQ(0, nPrinted("Consecutive retry errors"));
}

TEST_F(PosterDelivery, DoesNotFollowARedirection) {
    postAnswered(answerWith(301, "", "Location: " + endpoint_.sURL("/elsewhere") + "\r\n"),
                 "HTTP 301");
    poster_.queuePayload("next");
    ASSERT_TRUE(bHasRequests(2));
    EXPECT_EQ("/archive", endpoint_.requests().at(1).sTarget);
    EXPECT_EQ("next", endpoint_.bodies().at(1));
}

TEST_F(PosterDelivery, DropsAPayloadWhoseConnectionEndsWithoutAnswer) {
    postAnswered(noAnswer(Then::kClose), "Send Error");
    EXPECT_TRUE(bHasPrinted("ERROR: error sending POST (code 52) for 7 bytes\nWon't retry\n"));
    postAnswered(answerWith(200), "HTTP OK");
    EXPECT_EQ(2U, endpoint_.nRequests());
}

TEST_F(PosterDelivery, DropsAPayloadWhoseConnectionIsReset) {
    postAnswered(noAnswer(Then::kReset), "Send Error");
    EXPECT_TRUE(bHasPrinted("ERROR: error sending POST (code 56) for 7 bytes\nWon't retry\n"));
    postAnswered(answerWith(200), "HTTP OK");
    EXPECT_EQ(2U, endpoint_.nRequests());
}

}  // namespace
