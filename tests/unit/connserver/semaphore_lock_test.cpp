#include "connserver/semaphore_lock.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <optional>
#include <thread>

#include "tests/unit/base/waiting.h"

namespace {

std::atomic<int> nSignals{0};

class SemaphoreLockTest : public testing::Test {
  protected:
    SemaphoreLockTest() { sem_init(&sem_, 0, 1); }
    ~SemaphoreLockTest() override { sem_destroy(&sem_); }

    int nValue() {
        int nNow = -1;
        sem_getvalue(&sem_, &nNow);
        return nNow;
    }
    /// A thread that takes the semaphore, which is held, once it waits for it.
    std::thread waiter() {
        std::atomic<pid_t> tid{0};
        std::thread thread([this, &tid] {
            tid = gettid();
            const SemaphoreLock lock(sem_);
            bTaken_ = true;
        });
        EXPECT_TRUE(bEventually([&] { return tid != 0 && bIsAsleep(tid); }));
        return thread;
    }

    sem_t sem_{};
    std::atomic<bool> bTaken_{false};
};

TEST_F(SemaphoreLockTest, HoldsTheSemaphoreForItsScope) {
    {
        const SemaphoreLock lock(sem_);
        EXPECT_EQ(0, nValue());
    }
    EXPECT_EQ(1, nValue());
}

TEST_F(SemaphoreLockTest, WaitsUntilTheSemaphoreIsFree) {
    std::optional<SemaphoreLock> lock(sem_);
    std::thread thread = waiter();
    EXPECT_FALSE(bTaken_);
    lock.reset();
    thread.join();
    EXPECT_TRUE(bTaken_);
    EXPECT_EQ(1, nValue());
}

TEST_F(SemaphoreLockTest, WaitsOnAfterASignal) {
    struct sigaction interrupting {};
    struct sigaction before {};
    interrupting.sa_handler = [](int) { ++nSignals; };  // Without SA_RESTART.
    sigaction(SIGUSR1, &interrupting, &before);
    std::optional<SemaphoreLock> lock(sem_);
    std::thread thread = waiter();
    for (int i = 1; i <= 3; ++i) {
        pthread_kill(thread.native_handle(), SIGUSR1);
        EXPECT_TRUE(bEventually([i] { return nSignals == i; }));
    }
    EXPECT_FALSE(bTaken_);
    lock.reset();
    thread.join();
    sigaction(SIGUSR1, &before, nullptr);
    EXPECT_TRUE(bTaken_);
    EXPECT_EQ(1, nValue());
}

}  // namespace
