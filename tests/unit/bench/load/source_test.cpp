#include "bench/load/source.h"

#include <gtest/gtest.h>

namespace {

using Load::SendWindow;

// Eight blocks of ten messages.
constexpr std::uint32_t kMessages = 80;

TEST(SendWindow, EndsAWindowBeyondItsStart) {
    SendWindow window(kMessages, 2);
    window.restartAt(500);
    EXPECT_EQ(window.nEnd(), 580U);
}

TEST(SendWindow, MovesWhenTheLastReceiverHasFinishedABlock) {
    SendWindow window(kMessages, 2);
    window.restartAt(500);
    EXPECT_FALSE(window.bAdvance(500, 510));
    EXPECT_FALSE(window.bAdvance(500, 509));
    EXPECT_EQ(window.nEnd(), 580U);
    EXPECT_TRUE(window.bAdvance(509, 510));
    EXPECT_EQ(window.nEnd(), 590U);
}

TEST(SendWindow, MovesSeveralBlocksAtOnce) {
    SendWindow window(kMessages, 2);
    window.restartAt(0);
    EXPECT_FALSE(window.bAdvance(0, 80));
    EXPECT_TRUE(window.bAdvance(0, 35));
    EXPECT_EQ(window.nEnd(), 110U);
    EXPECT_TRUE(window.bAdvance(35, 80));
    EXPECT_EQ(window.nEnd(), 160U);
}

TEST(SendWindow, GoesOnForManyRoundsWithReceiversOfDifferentSpeed) {
    SendWindow window(kMessages, 2);
    window.restartAt(3);
    std::uint32_t nFast = 3;
    std::uint32_t nSlow = 3;
    while (nSlow < 100'000) {
        const std::uint32_t nEnd = window.nEnd();
        (void)window.bAdvance(nFast, nEnd);
        nFast = nEnd;
        (void)window.bAdvance(nSlow, nSlow + 7);
        nSlow += 7;
        // Never more than a window ahead of the slower one.
        ASSERT_LE(window.nEnd(), nSlow + kMessages);
        ASSERT_GT(window.nEnd() + 10, nSlow + kMessages);
    }
}

TEST(SendWindow, HasAtLeastOneMessageInABlock) {
    SendWindow window(3, 1);
    window.restartAt(0);
    EXPECT_EQ(window.nEnd(), SendWindow::kBlocks);
    EXPECT_TRUE(window.bAdvance(0, 1));
}

}  // namespace
