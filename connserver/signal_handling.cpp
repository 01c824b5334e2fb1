#include "connserver/signal_handling.h"

#include <pthread.h>
#include <semaphore.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "base/get_strerror.h"

std::atomic<std::sig_atomic_t> exitRequested{0};

namespace {

sigset_t mask;                   ///< The three signals.
sigset_t oldmask;                ///< The mask of the calling thread before they were blocked.
pthread_t pttSignalHandler = 0;  ///< The signal thread; zero when none was started.

/// Set when the signal thread must end at the next signal, whichever it is. Cancelling it instead
/// would skip the clean-up of its stack.
std::atomic<bool> bClosing{false};

/// Posted when exit is requested, to wake sleeping threads. Posting takes no lock. Initialised
/// before its first use and never destroyed, because a thread may still sleep after the main
/// function.
sem_t& semExitRequest() {
    static sem_t sem;
    [[maybe_unused]] static const int nReady = sem_init(&sem, 0, 0);
    return sem;
}

timespec deadlineIn(int nMillis) {
    constexpr long kNanosPerSec = 1'000'000'000;
    timespec deadline{};
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += nMillis / 1000;
    deadline.tv_nsec += nMillis % 1000 * 1'000'000L;
    if (deadline.tv_nsec >= kNanosPerSec) {
        ++deadline.tv_sec;
        deadline.tv_nsec -= kNanosPerSec;
    }
    return deadline;
}

void requestExit() {
    exitRequested = 1;
    sem_post(&semExitRequest());
}

/// Removes signals that are pending for the calling thread or the process. A SIGPIPE is pending for
/// the thread that wrote, where the signal thread cannot receive it: after a single lost connection
/// it would kill the process as soon as the main thread unblocks it.
void discardPendingSignals() {
    const timespec noWait{};
    while (sigtimedwait(&mask, nullptr, &noWait) > 0 || errno == EINTR) {
    }
}

/// A second request while the process is ending must not kill it.
void ignoreTerminationSignals() {
    std::signal(SIGTERM, SIG_IGN);
    std::signal(SIGINT, SIG_IGN);
}

}  // namespace

bool setupSignalHandler() {
    if (pttSignalHandler != 0) {
        return true;
    }
    sigemptyset(&mask);
    sigaddset(&mask, SIGPIPE);
    sigaddset(&mask, SIGTERM);
    sigaddset(&mask, SIGINT);
    if (const int nError = pthread_sigmask(SIG_BLOCK, &mask, &oldmask); nError != 0) {
        std::printf("pthread_sigmask error: %s", get_strerror(nError).c_str());
        return false;
    }
    const int nError = pthread_create(&pttSignalHandler, nullptr, signal_handling_thread, &mask);
    if (nError != 0) {
        pttSignalHandler = 0;
        std::printf("pthread_create error: %s", get_strerror(nError).c_str());
        return false;
    }
    return true;
}

void* signal_handling_thread(void* arg) {
    const auto* pSignals = static_cast<const sigset_t*>(arg);
    for (;;) {
        int nSignal = 0;
        const int nError = sigwait(pSignals, &nSignal);
        if (nError != 0) {
            std::printf("sigwait error: %s", get_strerror(nError).c_str());
            return nullptr;
        }
        if (bClosing) {
            return nullptr;
        }
        if (nSignal == SIGTERM || nSignal == SIGINT) {
            requestExit();
            return nullptr;  // One request is enough; later ones stay pending.
        }
    }
}

void closeSignalHandler() {
    if (pttSignalHandler == 0) {
        return;
    }
    std::puts("signal handler thread running, let's close it");
    bClosing = true;
    pthread_kill(pttSignalHandler, SIGPIPE);  // Has no effect if the thread has already ended.
    std::puts("joining signal handler thread...");
    pthread_join(pttSignalHandler, nullptr);
    std::puts("signal handler thread joined");
    std::fflush(stdout);  // While SIGPIPE is still blocked.
    pttSignalHandler = 0;
    bClosing = false;
    if (exitRequested != 0) {
        ignoreTerminationSignals();
    }
    discardPendingSignals();
    pthread_sigmask(SIG_SETMASK, &oldmask, nullptr);
}

void joinEndedSignalThread() {
    // The thread returns right after the request, so this does not wait noticeably.
    if (pttSignalHandler != 0 && exitRequested != 0) {
        pthread_join(pttSignalHandler, nullptr);
        pttSignalHandler = 0;
    }
}

bool bWaitForExitRequest(int nMillis) {
    const timespec deadline = deadlineIn(std::max(nMillis, 0));
    while (exitRequested == 0) {
        // A wake-up may be left over from an earlier request, so only the flag counts.
        if (sem_clockwait(&semExitRequest(), CLOCK_MONOTONIC, &deadline) != 0 && errno != EINTR) {
            return exitRequested != 0;
        }
    }
    sem_post(&semExitRequest());  // Other threads may be sleeping.
    return true;
}
