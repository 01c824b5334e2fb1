#include "relayserver/sockets/epoll_set.h"

#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <vector>

int ep_fd = -1;
epoll_event* ep_events = nullptr;

namespace {

struct Registration {
    std::uint32_t nNumber = 0;
    bool bWatched = false;
    bool bTurnWaiting = false;
};

/// Indexed by descriptor.
std::vector<Registration> registrations;

/// Registrations that wait for another turn: those of the next round, and those of this round.
std::vector<std::uint64_t> turnsWaiting;
std::vector<std::uint64_t> turnsOfThisRound;

std::uint64_t eventDataOf(int fd, std::uint32_t nNumber) {
    return (static_cast<std::uint64_t>(nNumber) << 32U) | static_cast<std::uint32_t>(fd);
}

Registration& registrationOf(int fd) {
    const auto nIndex = static_cast<size_t>(fd);
    if (nIndex >= registrations.size()) {
        registrations.resize(nIndex + 1);
    }
    return registrations[nIndex];
}

[[nodiscard]] bool bAddToEpoll(int fd, std::uint32_t nInterest) {
    const std::uint32_t nNumber = fd < 0 ? 0 : registrationOf(fd).nNumber + 1;
    epoll_event epe{};
    epe.events = nInterest;
    epe.data.u64 = eventDataOf(fd, nNumber);
    if (epoll_ctl(ep_fd, EPOLL_CTL_ADD, fd, &epe) == -1) {
        std::perror("epoll_ctl");
        return false;
    }
    registrationOf(fd) = {nNumber, true, false};
    return true;
}

}  // namespace

bool bOpenEpollSet() {
    ep_fd = epoll_create(kMaxEpollEvents);
    if (ep_fd == -1) {
        std::perror("epoll_create");
        return false;
    }
    ep_events = new epoll_event[kMaxEpollEvents]();
    return true;
}

bool addToEpollForRead(int fd) {
    return bAddToEpoll(fd, EPOLLIN);
}

bool addToEpollForWrite(int fd) {
    return bAddToEpoll(fd, EPOLLOUT);
}

bool removeFromEpoll(int fd) {
    epoll_event epeUnused{};
    if (epoll_ctl(ep_fd, EPOLL_CTL_DEL, fd, &epeUnused) == -1) {
        std::perror("epoll_ctl");
        return false;
    }
    registrationOf(fd).bWatched = false;
    return true;
}

void closeDescriptor(int fd) {
    if (fd < 0) {
        return;
    }
    if (static_cast<size_t>(fd) < registrations.size()) {
        registrations[static_cast<size_t>(fd)].bWatched = false;
    }
    close(fd);
}

bool bIsCurrent(const epoll_event& epe) {
    const auto nIndex = static_cast<size_t>(nDescriptorOf(epe));
    return nIndex < registrations.size() && registrations[nIndex].bWatched &&
           eventDataOf(nDescriptorOf(epe), registrations[nIndex].nNumber) == epe.data.u64;
}

void offerAgain(int fd) {
    if (fd < 0) {
        return;
    }
    Registration& rRegistration = registrationOf(fd);
    if (rRegistration.bWatched && !rRegistration.bTurnWaiting) {
        rRegistration.bTurnWaiting = true;
        turnsWaiting.push_back(eventDataOf(fd, rRegistration.nNumber));
    }
}

bool bTurnsWaiting() {
    return !turnsWaiting.empty();
}

void beginTurns() {
    turnsOfThisRound.swap(turnsWaiting);
}

bool bNextTurn(epoll_event& epe) {
    while (!turnsOfThisRound.empty()) {
        epe.events = EPOLLIN;
        epe.data.u64 = turnsOfThisRound.back();
        turnsOfThisRound.pop_back();
        if (bIsCurrent(epe)) {
            registrations[static_cast<size_t>(nDescriptorOf(epe))].bTurnWaiting = false;
            return true;
        }
    }
    return false;
}

void resetEpollSetForTest() {
    if (ep_fd != -1) {
        close(ep_fd);
        ep_fd = -1;
    }
    delete[] ep_events;
    ep_events = nullptr;
    registrations.clear();
    turnsWaiting.clear();
    turnsOfThisRound.clear();
}
