#include "tests/stubs/poll_hook.h"

#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <utility>

namespace {

std::atomic<std::size_t> nCalls{0};
std::function<void()> happensMeanwhile;

timespec asTimespec(int nMillis) {
    constexpr int kMillisPerSec = 1000;
    constexpr long kNanosPerMilli = 1000000;
    return {nMillis / kMillisPerSec, nMillis % kMillisPerSec * kNanosPerMilli};
}

}  // namespace

std::size_t nPolls() {
    return nCalls.load(std::memory_order_relaxed);
}

void onNextPoll(std::function<void()> happens) {
    happensMeanwhile = std::move(happens);
}

extern "C" int poll(pollfd* pDescriptors, nfds_t nDescriptors, int nMillis) {
    nCalls.fetch_add(1, std::memory_order_relaxed);
    if (happensMeanwhile) {
        std::exchange(happensMeanwhile, nullptr)();
    }
    timespec timeout = asTimespec(nMillis);
    return static_cast<int>(syscall(SYS_ppoll, pDescriptors, nDescriptors,
                                    nMillis < 0 ? nullptr : &timeout, nullptr, 0));
}
