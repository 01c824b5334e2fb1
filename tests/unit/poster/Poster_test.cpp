// The life of a poster: idle, with a worker, without one again, and its end. The other tests of the
// poster are named after what they ask about: destination, delivery, retries and so on.
#include "poster/Poster.h"

#include <pthread.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include "tests/unit/poster/poster_fixture.h"

namespace {

using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::ElementsAreArray;

class PosterTest : public PosterFixture {
  protected:
    PosterTest() { poster_.setDestination(endpoint_.sURL()); }

    /// Has the worker wait for an answer that does not come.
    void keepTheWorkerBusy() {
        endpoint_.plan(heldBack(answerWith(200)));
        poster_.queuePayload("unanswered");
        ASSERT_TRUE(bHasRequests(1));
    }
};

TEST_F(PosterTest, IsIdleBeforeTheFirstPayload) {
    EXPECT_EQ("Idle", poster_.getLastStatusCode());
    EXPECT_EQ(0, poster_.getLastOK());
    EXPECT_EQ("", poster_.getLastResponse());
    EXPECT_EQ(0U, poster_.getPayloadQueueSize());
    EXPECT_EQ(0U, poster_.getPayloadQueueBytes());
    EXPECT_TRUE(poster_.bHasEnded());
}

TEST_F(PosterTest, StartsItsWorkerWithTheFirstPayload) {
    poster_.queuePayload("payload");
    EXPECT_FALSE(poster_.bHasEnded());
    EXPECT_TRUE(bHasStatus("HTTP OK"));
    EXPECT_FALSE(poster_.bHasEnded()) << "it waits for the next";
    EXPECT_THAT(endpoint_.bodies(), ElementsAre("payload"));
}

TEST_F(PosterTest, StartsANewWorkerAfterTheEndOfTheFirst) {
    poster_.queuePayload("first");
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    poster_._interruptWorkThread();
    EXPECT_TRUE(poster_.bHasEnded());
    EXPECT_EQ("Idle", poster_.getLastStatusCode());
    poster_.queuePayload("second");
    EXPECT_FALSE(poster_.bHasEnded());
    EXPECT_TRUE(bHasStatus("HTTP OK"));
    EXPECT_THAT(endpoint_.bodies(), ElementsAre("first", "second"));
}

TEST_F(PosterTest, KeepsPayloadsWhileNoWorkerCanStart) {
    pthread_attr_t usual;
    pthread_attr_t huge;
    pthread_getattr_default_np(&usual);
    pthread_attr_init(&huge);
    pthread_attr_setstacksize(&huge, std::size_t{1} << 47U);  // more than there are addresses
    pthread_setattr_default_np(&huge);
    poster_.queuePayload("first");
    pthread_setattr_default_np(&usual);
    pthread_attr_destroy(&usual);
    pthread_attr_destroy(&huge);
    EXPECT_EQ(1, nPrinted("ERROR: cannot start the post worker thread: "));
    EXPECT_TRUE(poster_.bHasEnded());
    EXPECT_EQ(1U, poster_.getPayloadQueueSize());
    poster_.queuePayload("second");
    ASSERT_TRUE(bHasRequests(2));
    EXPECT_THAT(endpoint_.bodies(), ElementsAre("first", "second"));
}

TEST_F(PosterTest, MayBeAskedByAnyThread) {
    std::thread other([&] {
        for (int i = 0; i < 200; ++i) {
            (void)poster_.getPayloadQueueSize();
            (void)poster_.getPayloadQueueBytes();
            (void)poster_.getLastStatusCode();
            (void)poster_.getLastOK();
            (void)poster_.getLastResponse();
        }
    });
    for (const std::string& sText : payloads(0, 50)) {
        poster_.queuePayload(sText);
    }
    other.join();
    ASSERT_TRUE(bHasRequests(50));
    EXPECT_THAT(endpoint_.bodies(), ElementsAreArray(payloads(0, 50)));
}

TEST_F(PosterTest, CannotBeClosedWhileItsWorkerRuns) {
    ASSERT_NO_FATAL_FAILURE(keepTheWorkerBusy());
    const auto tBefore = steady_clock::now();
    EXPECT_FALSE(poster_.bClose());
    EXPECT_LT(steady_clock::now() - tBefore, std::chrono::milliseconds(500));
    poster_._interruptWorkThread();
    poster_.queuePayload("next");
    ASSERT_TRUE(bHasRequests(3));
    EXPECT_THAT(endpoint_.bodies(), ElementsAre("unanswered", "unanswered", "next"));
}

TEST_F(PosterTest, HasNoDestinationOnceItIsClosed) {
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    poster_._interruptWorkThread();
    EXPECT_TRUE(poster_.bClose());
    poster_.queuePayload("payload");
    EXPECT_TRUE(bHasStatus("Can't resolve URL"));
    EXPECT_EQ(1U, endpoint_.nRequests());
}

TEST_F(PosterTest, CanBeClosedUnused) {
    CaptionPoster unused;
    EXPECT_TRUE(unused.bClose());
    EXPECT_TRUE(unused.bClose());
}

TEST_F(PosterTest, EndsQuietlyWithoutAWorker) {
    const std::string sBefore = stdout_.sText();
    { CaptionPoster unused; }
    EXPECT_EQ(sBefore, stdout_.sText());
}

TEST_F(PosterTest, WaitsForItsWorkerWhenItEndsAndLosesWhatWaits) {
    endpoint_.plan(heldBack(answerWith(200)));
    auto pPoster = std::make_unique<CaptionPoster>();
    pPoster->setDestination(endpoint_.sURL());
    pPoster->queuePayload("unanswered");
    ASSERT_TRUE(bHasRequests(1));
    pPoster->queuePayload("waits");
    const auto tBefore = steady_clock::now();
    pPoster.reset();
    EXPECT_LT(steady_clock::now() - tBefore, std::chrono::seconds(2));
    EXPECT_EQ(1, nPrinted("Post worker thread interrupted\n"));
    EXPECT_EQ(1U, endpoint_.nRequests());
}

}  // namespace
