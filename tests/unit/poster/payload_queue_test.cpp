#include "poster/payload_queue.h"

#include <gtest/gtest.h>

#include <string>

namespace {

PayloadQueue queueOf(std::initializer_list<const char*> texts) {
    PayloadQueue queue;
    for (const char* achText : texts) {
        queue.push({achText, {}});
    }
    return queue;
}

/// All texts in order, each followed by a blank; the queue is empty then.
std::string sDrained(PayloadQueue& rQueue) {
    std::string sTexts;
    while (!rQueue.empty()) {
        sTexts += rQueue.pop().sText + ' ';
    }
    return sTexts;
}

TEST(PayloadQueue, BeginsEmpty) {
    const PayloadQueue queue;
    EXPECT_TRUE(queue.empty());
    EXPECT_EQ(0U, queue.size());
    EXPECT_EQ(0U, queue.nBytes());
}

TEST(PayloadQueue, GivesTheOldestFirst) {
    PayloadQueue queue = queueOf({"a", "b", "c"});
    EXPECT_EQ("a", queue.front().sText);
    EXPECT_EQ(3U, queue.size());
    EXPECT_EQ("a b c ", sDrained(queue));
}

TEST(PayloadQueue, KeepsTheTimeOfEachPayload) {
    const std::chrono::steady_clock::time_point tEarliest(std::chrono::seconds(7));
    PayloadQueue queue;
    queue.push({"later", tEarliest});
    EXPECT_EQ(tEarliest, queue.front().tEarliest);
    EXPECT_EQ(tEarliest, queue.pop().tEarliest);
}

TEST(PayloadQueue, CountsTheBytesOfWhatWaits) {
    PayloadQueue queue = queueOf({"four", "", "sixsix"});
    EXPECT_EQ(10U, queue.nBytes());
    (void)queue.pop();
    EXPECT_EQ(6U, queue.nBytes());
    (void)sDrained(queue);
    EXPECT_EQ(0U, queue.nBytes());
}

TEST(PayloadQueue, MovesTheOldestToTheEndOfAnother) {
    PayloadQueue from = queueOf({"c", "dd", "e"});
    PayloadQueue to = queueOf({"a", "b"});
    from.moveOldestTo(to, 2);
    EXPECT_EQ(4U + 1U, to.nBytes());
    EXPECT_EQ(1U, from.nBytes());
    EXPECT_EQ("a b c dd ", sDrained(to));
    EXPECT_EQ("e ", sDrained(from));
}

TEST(PayloadQueue, MovesNoMoreThanThereAre) {
    PayloadQueue from = queueOf({"a", "b"});
    PayloadQueue to;
    from.moveOldestTo(to, 10);
    EXPECT_TRUE(from.empty());
    EXPECT_EQ("a b ", sDrained(to));
}

TEST(PayloadQueue, MovesNothingWhenAskedForNone) {
    PayloadQueue from = queueOf({"a"});
    PayloadQueue to;
    from.moveOldestTo(to, 0);
    EXPECT_EQ(1U, from.size());
    EXPECT_TRUE(to.empty());
}

TEST(PayloadQueue, IsSwappedWithAnother) {
    PayloadQueue one = queueOf({"a"});
    PayloadQueue other = queueOf({"bb", "c"});
    one.swap(other);
    EXPECT_EQ(3U, one.nBytes());
    EXPECT_EQ(1U, other.nBytes());
    EXPECT_EQ("bb c ", sDrained(one));
    EXPECT_EQ("a ", sDrained(other));
}

}  // namespace
