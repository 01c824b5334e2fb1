#include "tests/unit/poster/poster_fixture.h"

namespace {

using testing::ElementsAre;

class PosterDelay : public PosterFixture {
  protected:
    PosterDelay() { poster_.setDestination(endpoint_.sURL()); }

    [[nodiscard]] bool bStaysAtRequests(std::size_t nRequests) {
        return bStays([&] { return endpoint_.nRequests() == nRequests; });
    }
};

TEST_F(PosterDelay, PostponesAPayloadUntilItsTime) {
    poster_.queuePayload("delayed", 10);
    EXPECT_TRUE(bStaysAtRequests(0));
    advanceClockForTest(std::chrono::milliseconds(9999));
    EXPECT_TRUE(bStaysAtRequests(0));
    EXPECT_EQ("Idle", poster_.getLastStatusCode());
    advanceClockForTest(std::chrono::milliseconds(1));
    EXPECT_TRUE(bHasRequests(1));
}

TEST_F(PosterDelay, PostponesLaterPayloadsAsWell) {
    poster_.queuePayload("at once");
    poster_.queuePayload("delayed", 10);
    poster_.queuePayload("behind");
    ASSERT_TRUE(bHasRequests(1));
    EXPECT_TRUE(bStaysAtRequests(1));
    advanceClockForTest(10);
    ASSERT_TRUE(bHasRequests(3));
    EXPECT_THAT(endpoint_.bodies(), ElementsAre("at once", "delayed", "behind"));
}

TEST_F(PosterDelay, CountsFromTheMomentOfQueuing) {
    poster_.queuePayload("first", 10);
    poster_.queuePayload("second", 12);
    advanceClockForTest(10);
    ASSERT_TRUE(bHasRequests(1));
    EXPECT_TRUE(bStaysAtRequests(1));
    advanceClockForTest(2);
    EXPECT_TRUE(bHasRequests(2));
}

TEST_F(PosterDelay, IsNotExtendedWhenTheWallClockIsSetBack) {
    poster_.queuePayload("delayed", 10);
    setClockForTest(kStart - 86'400);
    advanceClockForTest(10);
    EXPECT_TRUE(bHasRequests(1));
}

TEST_F(PosterDelay, IsNotShortenedWhenTheWallClockIsSetForward) {
    poster_.queuePayload("delayed", 10);
    setClockForTest(kStart + 86'400);
    EXPECT_TRUE(bStaysAtRequests(0));
    advanceClockForTest(10);
    EXPECT_TRUE(bHasRequests(1));
}

TEST_F(PosterDelay, MayBeAsLongAsItsTypeAllows) {
    poster_.queuePayload("in 136 years", 4'294'967'295U);
    EXPECT_TRUE(bStaysAtRequests(0));
    advanceClockForTest(86'400);
    EXPECT_TRUE(bStaysAtRequests(0));
}

}  // namespace
