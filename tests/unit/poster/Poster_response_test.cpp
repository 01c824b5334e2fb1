#include "tests/unit/poster/poster_fixture.h"

namespace {

constexpr std::size_t kMaxResponseBytes = 65536;

class PosterResponse : public PosterFixture {
  protected:
    PosterResponse() { poster_.setDestination(endpoint_.sURL()); }

    void post(const HttpAnswer& answer) {
        endpoint_.plan(answer);
        poster_.queuePayload("payload");
    }
    [[nodiscard]] bool bHasResponse(const std::string& sResponse) {
        return bEventually([&] { return poster_.getLastResponse() == sResponse; });
    }
};

TEST_F(PosterResponse, KeepsTheBodyOfTheLastAnswer) {
    post(answerWith(200, "stored"));
    EXPECT_TRUE(bHasResponse("stored"));
    post(answerWith(500, "disk full\r\n"));
    EXPECT_TRUE(bHasResponse("disk full\r\n"));
}

TEST_F(PosterResponse, IsEmptyAfterAnAnswerWithoutBody) {
    post(answerWith(200, "stored"));
    EXPECT_TRUE(bHasResponse("stored"));
    post(answerWith(200));
    EXPECT_TRUE(bHasResponse(""));
}

TEST_F(PosterResponse, IsEmptyAfterAFailure) {
    post(answerWith(200, "stored"));
    EXPECT_TRUE(bHasResponse("stored"));
    endpoint_.goAway();
    poster_.queuePayload("payload");
    EXPECT_TRUE(bIsRefused(1));
    EXPECT_EQ("", poster_.getLastResponse());
}

TEST_F(PosterResponse, KeepsTheFirst64KiB) {
    const std::string sKept(kMaxResponseBytes, 'k');
    post(answerWith(200, sKept + "not this"));
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    EXPECT_TRUE(sKept == poster_.getLastResponse());  // a difference would be printed
}

TEST_F(PosterResponse, TakesAnswersOfAnyLength) {
    post(answerWith(200, std::string(20 * kMaxResponseBytes, 'l')));
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    EXPECT_EQ(kMaxResponseBytes, poster_.getLastResponse().size());
    post(answerWith(200, "short"));
    EXPECT_TRUE(bHasResponse("short"));
}

TEST_F(PosterResponse, ShowsAnAnswerAsFarAsReceived) {
    const HttpAnswer answer = answerWith(200, "first half, second half");
    post(heldBack(answer, answer.sAtOnce.find(", second half")));
    EXPECT_TRUE(bHasResponse("first half"));
    EXPECT_EQ("Idle", poster_.getLastStatusCode());
    endpoint_.release();
    EXPECT_TRUE(bHasStatus("HTTP OK"));
    EXPECT_EQ("first half, second half", poster_.getLastResponse());
}

TEST_F(PosterResponse, IsWhatOthersSetAndAdd) {
    poster_.setLastResponse("set");
    poster_.addResponse(" and added", 4);
    EXPECT_EQ("set and", poster_.getLastResponse());
    poster_.setLastResponse("again");
    EXPECT_EQ("again", poster_.getLastResponse());
}

TEST_F(PosterResponse, IsLimitedWhenOthersSetOrAddToIt) {
    poster_.setLastResponse(std::string(kMaxResponseBytes + 1, 's'));
    EXPECT_EQ(kMaxResponseBytes, poster_.getLastResponse().size());
    poster_.setLastResponse(std::string(kMaxResponseBytes - 2, 's'));
    poster_.addResponse("added", 5);
    EXPECT_EQ(std::string(kMaxResponseBytes - 2, 's') + "ad", poster_.getLastResponse());
    poster_.addResponse("more", 4);
    EXPECT_EQ(kMaxResponseBytes, poster_.getLastResponse().size());
}

}  // namespace
