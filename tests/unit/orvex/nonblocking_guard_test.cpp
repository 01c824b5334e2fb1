#include "orvex/nonblocking_guard.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "tests/unit/orvex/socket_fixtures.h"

namespace {

TEST(NonBlockingGuard, MakesADescriptorNonBlockingForItsScope) {
    const Pipe pipe;
    {
        const NonBlockingGuard guard(pipe.in.get());
        EXPECT_TRUE(bIsNonBlockingForTest(pipe.in.get()));
        EXPECT_FALSE(bIsNonBlockingForTest(pipe.out.get())) << "and no other";
    }
    EXPECT_FALSE(bIsNonBlockingForTest(pipe.in.get()));
}

TEST(NonBlockingGuard, LeavesADescriptorNonBlockingThatWasSo) {
    const Pipe pipe;
    makeNonBlockingForTest(pipe.in.get());
    { const NonBlockingGuard guard(pipe.in.get()); }
    EXPECT_TRUE(bIsNonBlockingForTest(pipe.in.get()));
}

TEST(NonBlockingGuard, KeepsTheOtherFlags) {
    const Pipe pipe;
    ASSERT_EQ(fcntl(pipe.in.get(), F_SETFL, O_WRONLY | O_APPEND), 0);
    const int nBefore = fcntl(pipe.in.get(), F_GETFL);
    {
        const NonBlockingGuard guard(pipe.in.get());
        EXPECT_EQ(fcntl(pipe.in.get(), F_GETFL), nBefore | O_NONBLOCK);
    }
    EXPECT_EQ(fcntl(pipe.in.get(), F_GETFL), nBefore);
}

TEST(NonBlockingGuard, KeepsErrnoWhenItEnds) {
    Pipe pipe;
    {
        const NonBlockingGuard guard(pipe.in.get());
        pipe.in.closeNow();  // restoring the flags fails with EBADF
        errno = EPIPE;
    }
    EXPECT_EQ(errno, EPIPE);
}

TEST(NonBlockingGuard, IsHarmlessOnABadDescriptor) {
    { const NonBlockingGuard guard(-1); }
    { const NonBlockingGuard guard(1'000'000); }
}

}  // namespace
