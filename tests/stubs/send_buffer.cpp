#include "tests/stubs/send_buffer.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <ctime>

namespace {

std::atomic<std::size_t> nSends{0};
std::atomic<std::size_t> nMessagesGiven{0};
std::atomic<std::size_t> nWaits{0};
std::atomic<int> nMillisWaited{0};

/// 0 while there is room.
std::atomic<int> nProblemOfSend{0};
std::atomic<bool> bEmptiesInWait{false};

timespec asTimespec(int nMillis) {
    constexpr int kMillisPerSec = 1000;
    constexpr long kNanosPerMilli = 1000000;
    return {nMillis / kMillisPerSec, nMillis % kMillisPerSec * kNanosPerMilli};
}

}  // namespace

std::size_t nSendCalls() {
    return nSends.load();
}

std::size_t nPolls() {
    return nWaits.load();
}

int nMillisOfLastPoll() {
    return nMillisWaited.load();
}

std::size_t nMessagesSent() {
    return nMessagesGiven.load();
}

void fillSendBuffer(FullBuffer behaviour, int nProblem) {
    nProblemOfSend = nProblem;
    bEmptiesInWait = behaviour == FullBuffer::kEmptiesInWait;
}

void emptySendBuffer() {
    nProblemOfSend = 0;
}

extern "C" int sendmmsg(int fd, mmsghdr* pMessages, unsigned nMessages, int nFlags) {
    nSends.fetch_add(1);
    nMessagesGiven.fetch_add(nMessages);
    if (nProblemOfSend != 0) {
        errno = nProblemOfSend;
        return -1;
    }
    return static_cast<int>(syscall(SYS_sendmmsg, fd, pMessages, nMessages, nFlags));
}

extern "C" int poll(pollfd* pDescriptors, nfds_t nDescriptors, int nMillis) {
    nWaits.fetch_add(1);
    nMillisWaited = nMillis;
    if (nProblemOfSend != 0) {
        if (bEmptiesInWait) {
            emptySendBuffer();
        }
        return bEmptiesInWait ? 1 : 0;
    }
    timespec timeout = asTimespec(nMillis);
    return static_cast<int>(syscall(SYS_ppoll, pDescriptors, nDescriptors,
                                    nMillis < 0 ? nullptr : &timeout, nullptr, 0));
}
