#include "bench/load/event_set.h"

#include <unistd.h>

#include <algorithm>

#include "bench/load/give_up.h"

namespace Load {

EventSet::EventSet() : fdEpoll(epoll_create1(EPOLL_CLOEXEC)) {
    if (fdEpoll < 0) {
        giveUp("cannot create an epoll set");
    }
}

EventSet::~EventSet() {
    close(fdEpoll);
}

void EventSet::add(int fd, std::uint32_t nEvents, Party party, std::size_t nIndex) {
    epoll_event event{};
    event.events = nEvents;
    event.data.u64 = static_cast<std::uint64_t>(party) << 32 | nIndex;
    if (epoll_ctl(fdEpoll, EPOLL_CTL_ADD, fd, &event) != 0) {
        giveUp("cannot watch a descriptor");
    }
}

void EventSet::watch(int fd, Party party, std::size_t nIndex) {
    add(fd, EPOLLIN, party, nIndex);
}

void EventSet::watchChanges(int fd, Party party, std::size_t nIndex) {
    add(fd, EPOLLIN | EPOLLOUT | EPOLLET, party, nIndex);
}

gsl::span<const epoll_event> EventSet::wait(int nTimeoutMs) {
    const int nReady =
        epoll_wait(fdEpoll, events.data(), static_cast<int>(events.size()), nTimeoutMs);
    return {events.data(), static_cast<std::size_t>(std::max(nReady, 0))};
}

}  // namespace Load
