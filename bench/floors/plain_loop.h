/// The loop of the plain TCP floors: reads, cuts frames, hands them on.
#pragma once

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "bench/floors/framing.h"

namespace Floor {

/// Reads once from a client, at most `kReadSize` bytes, and hands whole frames to `deliver`, which
/// is called with the client's group and a view of one frame (`kRuns` false) or of all that have
/// come (`kRuns` true).
template <std::size_t kReadSize, bool kRuns, class Deliver>
void readOnce(int fd, Deliver deliver) {
    static std::array<char, kMaxFrame + kReadSize> achInput;
    Client& rClient = rClientOf(fd);
    char* const pFresh = achInput.data() + kMaxFrame;
    const ssize_t nRead = recv(fd, pFresh, kReadSize, 0);
    if (nRead <= 0) {
        if (nRead == 0 || errno != EAGAIN) {
            rClient = Client{};
            close(fd);
        }
        return;
    }
    char* const pStart = pFresh - rClient.nTail;
    std::memcpy(pStart, rClient.achTail, rClient.nTail);
    std::string_view svInput(pStart, rClient.nTail + static_cast<std::size_t>(nRead));
    if (!rClient.bIntroduced) {
        const std::size_t nFirst = nWholeFrame(svInput);
        if (nFirst > 0) {
            introduce(fd, rClient, svInput.substr(0, nFirst));
            svInput.remove_prefix(nFirst);
        }
    }
    std::size_t nRun = 0;
    for (std::size_t nLen; (nLen = nWholeFrame(svInput.substr(nRun))) > 0; nRun += nLen) {
        if constexpr (!kRuns) {
            deliver(rClient.nGroup, svInput.substr(nRun, nLen));
        }
    }
    if (kRuns && nRun > 0) {
        deliver(rClient.nGroup, svInput.substr(0, nRun));
    }
    svInput.remove_prefix(nRun);
    rClient.nTail = svInput.size();
    std::memcpy(rClient.achTail, svInput.data(), svInput.size());
}

/// Serves for ever at the address and port of the command line.
template <std::size_t kReadSize, bool kRuns, class Deliver>
int serve(const char* sAddress, const char* sPort, Deliver deliver) {
    const int fdListener = fdListenAt(sAddress, sPort);
    const int fdEpoll = epoll_create1(0);
    watch(fdEpoll, fdListener);
    static std::array<epoll_event, 1024> events;
    while (true) {
        const int nReady = epoll_wait(fdEpoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < nReady; ++i) {
            const int fd = events[static_cast<std::size_t>(i)].data.fd;
            if (fd != fdListener) {
                readOnce<kReadSize, kRuns>(fd, deliver);
                continue;
            }
            for (int fdNew; (fdNew = fdAcceptOne(fdListener)) >= 0;) {
                watch(fdEpoll, fdNew);
            }
        }
    }
}

}  // namespace Floor
