#include "relayserver/archive/SccPChunkerCollection.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <vector>

using std::chrono::microseconds;
using std::chrono::seconds;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr std::time_t kNow = 1700000000;
constexpr unsigned kNever = 1000000;

class SccPChunkerCollectionTest : public testing::Test {
  protected:
    SccPChunkerCollectionTest() { setClockForTest(kNow); }
    ~SccPChunkerCollectionTest() override { resetClockForTest(); }

    void caption(unsigned nID) {
        (void)collection.createNewSource(nID);
        collection.getSourceBuffer(nID)->add("ab");
    }
    std::vector<unsigned> dueAfter(unsigned nSecs) {
        std::vector<unsigned> ids;
        for (const SccPChunker* pChunker : collection.getBuffersOlderThan(nSecs)) {
            ids.push_back(pChunker->getSourceID());
        }
        return ids;
    }
    bool bKnown(unsigned nID) { return collection.getSourceBuffer(nID) != nullptr; }

    SccPChunkerCollection collection;
};

TEST_F(SccPChunkerCollectionTest, AnUnknownSourceHasNoBuffer) {
    EXPECT_EQ(nullptr, collection.getSourceBuffer(7));
    EXPECT_THAT(dueAfter(0), IsEmpty());
}

TEST_F(SccPChunkerCollectionTest, ANewSourceGetsABuffer) {
    SccPChunker* const pChunker = collection.createNewSource(7);
    ASSERT_NE(nullptr, pChunker);
    EXPECT_EQ(7U, pChunker->getSourceID());
    EXPECT_EQ(0U, pChunker->getBufferedSize());
    EXPECT_EQ(pChunker, collection.getSourceBuffer(7));
    EXPECT_EQ(nullptr, collection.getSourceBuffer(8));
}

TEST_F(SccPChunkerCollectionTest, AKnownSourceGetsNoOtherBuffer) {
    SccPChunker* const pChunker = collection.createNewSource(7);
    pChunker->add("ab");
    EXPECT_EQ(nullptr, collection.createNewSource(7));
    EXPECT_EQ(pChunker, collection.getSourceBuffer(7));
    EXPECT_EQ(1U, pChunker->getBufferedSize());
}

TEST_F(SccPChunkerCollectionTest, BuffersStayWhereTheyAre) {
    SccPChunker* const pChunker = collection.createNewSource(500);
    for (unsigned nID = 0; nID < 1000; ++nID) {
        (void)collection.createNewSource(nID);
    }
    EXPECT_EQ(pChunker, collection.getSourceBuffer(500));
    EXPECT_EQ(500U, pChunker->getSourceID());
}

TEST_F(SccPChunkerCollectionTest, TheLargestIdsAreIdsToo) {
    caption(4294967295U);
    caption(0);
    EXPECT_THAT(dueAfter(0), ElementsAre(0, 4294967295U));
}

TEST_F(SccPChunkerCollectionTest, ABufferIsDueWhenItsOldestCaptionIsOldEnough) {
    caption(7);
    advanceClockForTest(seconds(30));
    caption(7);
    advanceClockForTest(seconds(30) - microseconds(1));
    EXPECT_THAT(dueAfter(60), IsEmpty());
    advanceClockForTest(microseconds(1));
    EXPECT_THAT(dueAfter(60), ElementsAre(7));
    EXPECT_THAT(dueAfter(61), IsEmpty());
    EXPECT_THAT(dueAfter(60), ElementsAre(7)) << "until it is rendered";
    (void)collection.getSourceBuffer(7)->getChunkPayloadJson();
    EXPECT_THAT(dueAfter(60), IsEmpty());
}

TEST_F(SccPChunkerCollectionTest, BuffersAreDueInTheOrderOfTheirIds) {
    for (const unsigned nID : {9U, 2U, 7U, 4000000000U, 1U}) {
        caption(nID);
        advanceClockForTest(1);
    }
    EXPECT_THAT(dueAfter(1), ElementsAre(1, 2, 7, 9, 4000000000U));
    EXPECT_THAT(dueAfter(3), ElementsAre(2, 7, 9));
}

TEST_F(SccPChunkerCollectionTest, WhatIsDueIsWhatIsKept) {
    caption(7);
    advanceClockForTest(60);
    EXPECT_THAT(collection.getBuffersOlderThan(60), ElementsAre(collection.getSourceBuffer(7)));
}

TEST_F(SccPChunkerCollectionTest, AnEmptyBufferIsNeverDue) {
    (void)collection.createNewSource(7);
    advanceClockForTest(299);
    EXPECT_THAT(dueAfter(1), IsEmpty());
    EXPECT_TRUE(bKnown(7));
}

TEST_F(SccPChunkerCollectionTest, WithZeroSecondsEveryBufferIsDueEvenEmptyOnes) {
    (void)collection.createNewSource(7);
    caption(8);
    EXPECT_THAT(dueAfter(0), ElementsAre(7, 8));
    advanceClockForTest(1000);
    EXPECT_THAT(dueAfter(0), ElementsAre(7, 8)) << "what is due is not forgotten";
}

TEST_F(SccPChunkerCollectionTest, WithTheRealClockAnEmptyBufferIsNotDueEither) {
    resetClockForTest();
    for (unsigned nID = 0; nID < 1000; ++nID) {
        (void)collection.createNewSource(nID);
    }
    EXPECT_THAT(dueAfter(1), IsEmpty());
    EXPECT_EQ(1000U, dueAfter(0).size());
}

TEST_F(SccPChunkerCollectionTest, TheLongestIntervalDoesNotOverflow) {
    caption(7);
    advanceClockForTest(4294967294);
    EXPECT_THAT(dueAfter(4294967295U), IsEmpty());
    advanceClockForTest(1);
    EXPECT_THAT(dueAfter(4294967295U), ElementsAre(7));
}

TEST_F(SccPChunkerCollectionTest, CaptionsOfTheFutureAreDueAtOnce) {
    caption(7);
    setClockForTest(kNow - 1);
    EXPECT_THAT(dueAfter(kNever), ElementsAre(7));
    setClockForTest(kNow);
    EXPECT_THAT(dueAfter(kNever), IsEmpty());
}

TEST_F(SccPChunkerCollectionTest, OneMicrosecondAheadIsTheFuture) {
    advanceClockForTest(microseconds(1));
    caption(7);
    setClockForTest(kNow);
    EXPECT_THAT(dueAfter(1), ElementsAre(7));
}

TEST_F(SccPChunkerCollectionTest, ABufferIsForgottenAfterMoreThanThreeHundredIdleSeconds) {
    (void)collection.createNewSource(7);
    advanceClockForTest(300);
    EXPECT_THAT(dueAfter(60), IsEmpty());
    EXPECT_TRUE(bKnown(7)) << "300 s are not more than 300 s";
    advanceClockForTest(microseconds(1));
    EXPECT_TRUE(bKnown(7)) << "only a look at the buffers forgets";
    EXPECT_THAT(dueAfter(60), IsEmpty());
    EXPECT_FALSE(bKnown(7));
    EXPECT_NE(nullptr, collection.createNewSource(7)) << "as new";
}

TEST_F(SccPChunkerCollectionTest, RenderingPutsForgettingOff) {
    caption(7);
    advanceClockForTest(200);
    (void)collection.getSourceBuffer(7)->getChunkPayloadJson();
    advanceClockForTest(300);
    (void)dueAfter(60);
    EXPECT_TRUE(bKnown(7));
    advanceClockForTest(microseconds(1));
    (void)dueAfter(60);
    EXPECT_FALSE(bKnown(7));
}

TEST_F(SccPChunkerCollectionTest, ABufferWithCaptionsIsNotForgotten) {
    caption(7);
    advanceClockForTest(100000);
    EXPECT_THAT(dueAfter(kNever), IsEmpty());
    EXPECT_TRUE(bKnown(7));
}

TEST_F(SccPChunkerCollectionTest, AClearedBufferIsForgottenByItsLastRendering) {
    caption(7);
    advanceClockForTest(301);
    collection.getSourceBuffer(7)->clear();
    (void)dueAfter(60);
    EXPECT_FALSE(bKnown(7));
}

TEST_F(SccPChunkerCollectionTest, ForgettingLeavesTheNeighbours) {
    (void)collection.createNewSource(1);
    caption(2);
    (void)collection.createNewSource(3);
    (void)collection.createNewSource(4);
    advanceClockForTest(301);
    (void)collection.createNewSource(5);
    EXPECT_THAT(dueAfter(301), ElementsAre(2));
    EXPECT_FALSE(bKnown(1));
    EXPECT_TRUE(bKnown(2));
    EXPECT_FALSE(bKnown(3));
    EXPECT_FALSE(bKnown(4));
    EXPECT_TRUE(bKnown(5));
}

TEST_F(SccPChunkerCollectionTest, AClockThatWasSetBackForgetsNothing) {
    (void)collection.createNewSource(7);
    setClockForTest(kNow - 100000);
    (void)dueAfter(60);
    EXPECT_TRUE(bKnown(7));
}

}  // namespace
