#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "base/ip_utils.h"
#include "tests/unit/poster/held_name.h"
#include "tests/unit/poster/poster_fixture.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using testing::ElementsAre;
using testing::ElementsAreArray;

constexpr milliseconds kAtOnce{500};
constexpr milliseconds kSoon{2000};

/// A listener that answers no connection attempt, because its backlog is full.
class SilentListener {
  public:
    SilentListener() {
        sockaddr_in siAddress{};
        siAddress.sin_family = AF_INET;
        socklen_t nLen = sizeof siAddress;
        EXPECT_TRUE(bParseIPv4("127.77.0.2", siAddress.sin_addr));
        auto* const pAddress = reinterpret_cast<sockaddr*>(&siAddress);
        EXPECT_EQ(0, bind(fds_[0], pAddress, nLen));
        EXPECT_EQ(0, listen(fds_[0], 0));
        getsockname(fds_[0], pAddress, &nLen);
        nPort_ = nPortOf(siAddress);
        for (std::size_t i = 1; i < std::size(fds_); ++i) {
            connect(fds_[i], pAddress, nLen);
        }
    }
    ~SilentListener() {
        for (const int fd : fds_) {
            close(fd);
        }
    }
    SilentListener(const SilentListener&) = delete;
    SilentListener& operator=(const SilentListener&) = delete;

    int nPort() const { return nPort_; }

  private:
    static int nSocket() { return socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0); }

    const int fds_[4] = {nSocket(), nSocket(), nSocket(), nSocket()};
    int nPort_ = 0;
};

class PosterInterruption : public PosterFixture {
  protected:
    PosterInterruption() { poster_.setDestination(endpoint_.sURL()); }

    /// Runs `action`, which must take less than `limit` of real time.
    template <typename Action>
    void inTime(milliseconds limit, Action action) {
        const auto tBefore = steady_clock::now();
        action();
        const auto taken = steady_clock::now() - tBefore;
        const auto nMillis = std::chrono::duration_cast<milliseconds>(taken).count();
        EXPECT_LT(nMillis, limit.count());
        RecordProperty("milliseconds", std::to_string(nMillis));
    }
    void interruptIn(milliseconds limit) {
        inTime(limit, [&] { poster_._interruptWorkThread(); });
        EXPECT_EQ("Idle", poster_.getLastStatusCode());
        EXPECT_EQ(1, nPrinted("Post worker thread interrupted\n"));
        EXPECT_TRUE(poster_.bHasEnded());
    }
    /// Expects that `texts` wait, and that the next payload starts a new worker, which delivers
    /// all.
    void expectDeliveryOf(std::vector<std::string> texts) {
        EXPECT_EQ(texts.size(), poster_.getPayloadQueueSize());
        const std::size_t nBefore = endpoint_.nRequests();
        texts.push_back("new");
        poster_.queuePayload("new");
        ASSERT_TRUE(bHasRequests(nBefore + texts.size()));
        const auto bodies = endpoint_.bodies();
        EXPECT_THAT(
            std::vector(bodies.begin() + static_cast<std::ptrdiff_t>(nBefore), bodies.end()),
            ElementsAreArray(texts));
        EXPECT_TRUE(bHasStatus("HTTP OK"));
    }
    /// Queues payloads and waits until the worker has sent the first of them, which gets no answer.
    void postUnanswered(const std::vector<std::string>& texts) {
        endpoint_.plan(heldBack(answerWith(200)));
        queueAtOnce(texts);
        ASSERT_TRUE(bHasRequests(1));
        ASSERT_EQ(0, std::count(texts.begin(), texts.end(), "new"));
    }
};

TEST_F(PosterInterruption, HasNoEffectWithoutAWorker) {
    poster_._interruptWorkThread();
    EXPECT_EQ("Idle", poster_.getLastStatusCode());
    poster_.askToEnd();
    EXPECT_TRUE(poster_.bHasEnded());
    expectDeliveryOf({});
}

TEST_F(PosterInterruption, EndsAnIdleWorker) {
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    EXPECT_FALSE(poster_.bHasEnded());
    interruptIn(kAtOnce);
    expectDeliveryOf({});
}

TEST_F(PosterInterruption, EndsAWorkerThatWaitsForADelayToPass) {
    poster_.queuePayload("p0", 1000);
    ASSERT_TRUE(bEventually([&] { return poster_.getPayloadQueueSize() == 0; }));
    poster_.queuePayload("p1");
    interruptIn(kAtOnce);
    advanceClockForTest(1000);
    expectDeliveryOf({"p0", "p1"});
}

TEST_F(PosterInterruption, KeepsTheTimeOfADelayedPayload) {
    poster_.queuePayload("p0", 1000);
    interruptIn(kAtOnce);
    poster_.queuePayload("p1");
    advanceClockForTest(999);
    EXPECT_TRUE(bStays([&] { return endpoint_.nRequests() == 0; }));
    advanceClockForTest(1);
    EXPECT_TRUE(bHasRequests(2));
}

TEST_F(PosterInterruption, EndsAWorkerThatPausesAfterAFailure) {
    endpoint_.goAway();
    queueAtOnce(payloads(0, 12));
    ASSERT_TRUE(bIsRefused(1));
    inTime(kAtOnce, [&] { poster_._interruptWorkThread(); });
    EXPECT_EQ("Idle", poster_.getLastStatusCode());
    endpoint_.comeBack();
    expectDeliveryOf(payloads(0, 12));
}

TEST_F(PosterInterruption, EndsAWorkerThatPausesAfterDroppingItsBatch) {
    endpoint_.goAway();
    queueAtOnce(payloads(0, 35));
    ASSERT_TRUE(bIsRefused(1));
    ASSERT_TRUE(bIsRefusedAfterPauses(10));
    inTime(kAtOnce, [&] { poster_._interruptWorkThread(); });
    endpoint_.comeBack();
    expectDeliveryOf(payloads(15, 35));
}

TEST_F(PosterInterruption, EndsATransferToAServerThatNeverAnswers) {
    ASSERT_NO_FATAL_FAILURE(postUnanswered(payloads(0, 12)));
    inTime(kSoon, [&] { poster_._interruptWorkThread(); });
    EXPECT_EQ("Idle", poster_.getLastStatusCode());
    EXPECT_EQ(0, nPrinted("ERROR"));
    expectDeliveryOf(payloads(0, 12));
}

TEST_F(PosterInterruption, EndsATransferWhoseAnswerStops) {
    endpoint_.plan(heldBack(answerWith(200, "an answer in two parts"), 60));
    poster_.queuePayload("p0");
    ASSERT_TRUE(bHasRequests(1));
    interruptIn(kSoon);
    expectDeliveryOf({"p0"});
}

TEST_F(PosterInterruption, EndsAConnectionAttemptThatIsNotAnswered) {
    const SilentListener listener;
    poster_.setDestination("127.77.0.2", listener.nPort(), "");
    poster_.queuePayload("p0");
    EXPECT_TRUE(bStays([&] { return poster_.getLastStatusCode() == "Idle"; }));
    interruptIn(kSoon);
    poster_.setDestination(endpoint_.sURL());
    expectDeliveryOf({"p0"});
}

TEST_F(PosterInterruption, EndsTheWaitForANameServerThatDoesNotAnswer) {
    const HeldName name;
    poster_.setDestination(std::string("http://") + HeldName::kHost + "/");
    poster_.queuePayload("p0");
    ASSERT_TRUE(bEventually([] { return HeldName::bIsLookedUp(); }));
    interruptIn(kSoon);
    EXPECT_TRUE(HeldName::bIsLookedUp());
    poster_.setDestination(endpoint_.sURL());
    expectDeliveryOf({"p0"});
}

TEST_F(PosterInterruption, RepeatsNothingThatWasDelivered) {
    endpoint_.plan(answerWith(200), 2);
    endpoint_.plan(heldBack(answerWith(200)));
    queueAtOnce(payloads(0, 12));
    ASSERT_TRUE(bHasRequests(3));
    poster_._interruptWorkThread();
    expectDeliveryOf(payloads(2, 12));
}

TEST_F(PosterInterruption, PutsTakenPayloadsBeforeLaterOnes) {
    ASSERT_NO_FATAL_FAILURE(postUnanswered(payloads(0, 25)));
    for (const std::string& sText : payloads(25, 40)) {
        poster_.queuePayload(sText);
    }
    poster_._interruptWorkThread();
    expectDeliveryOf(payloads(0, 40));
}

TEST_F(PosterInterruption, QueuesNoEmptyPayload) {
    poster_.queuePayload("payload");
    ASSERT_TRUE(bHasStatus("HTTP OK"));
    interruptIn(kAtOnce);
    EXPECT_EQ(0U, poster_.getPayloadQueueSize());
    expectDeliveryOf({});
}

TEST_F(PosterInterruption, MayBeAskedForWithoutWaiting) {
    ASSERT_NO_FATAL_FAILURE(postUnanswered(payloads(0, 12)));
    EXPECT_FALSE(poster_.bHasEnded());
    inTime(kAtOnce, [&] { poster_.askToEnd(); });
    inTime(kSoon, [&] { EXPECT_TRUE(bEventually([&] { return poster_.bHasEnded(); })); });
    expectDeliveryOf(payloads(0, 12));
}

TEST_F(PosterInterruption, MayHappenAtAnyMoment) {
    for (int i = 0; i < 50; ++i) {
        poster_.queuePayload('p' + std::to_string(i));
        if (i % 3 == 0) {
            poster_._interruptWorkThread();
        }
    }
    poster_.queuePayload("last");
    ASSERT_TRUE(bEventually(
        [&] { return endpoint_.nRequests() > 0 && endpoint_.bodies().back() == "last"; }));
    // A payload in transfer may have been posted twice.
    auto bodies = endpoint_.bodies();
    bodies.erase(std::unique(bodies.begin(), bodies.end()), bodies.end());
    auto expected = payloads(0, 50);
    expected.push_back("last");
    EXPECT_EQ(expected, bodies);
}

}  // namespace
