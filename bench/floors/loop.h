/// The loop of the TCP floors: reads, splits the input into frames, writes them to the receivers of
/// their group.
#pragma once

#include <sys/epoll.h>

#include <array>
#include <cstring>

#include "bench/floors/framing.h"

namespace Floor {

/// What a floor does with what it has read.
enum class Delivery {
    kFrames,  ///< writes every frame separately
    kRuns,    ///< writes all frames of a read at once: a receiver has only one source
};

/// Reads once from a client and delivers the complete frames. `Io` reads and writes:
///   `nRead(fd, buffer, room)` returns the bytes read, 0 when there are none, -1 at the end of a
///   connection, which it has then closed; `sendAll(fd, bytes)` waits for room when there is none;
///   `take(fd)` gets every accepted connection; `kReadSize` is the buffer size for one read.
template <class Io, Delivery kDelivery>
void readOnce(Io& rIo, int fd) {
    static std::array<char, kMaxFrame + Io::kReadSize> achInput;
    Client& rClient = rClientOf(fd);
    char* const pFresh = achInput.data() + kMaxFrame;
    const ssize_t nRead = rIo.nRead(fd, pFresh, Io::kReadSize);
    if (nRead <= 0) {
        if (nRead < 0) {
            rClient = Client{};
        }
        return;
    }
    char* const pStart = pFresh - rClient.nTail;
    std::memcpy(pStart, rClient.achTail, rClient.nTail);
    std::string_view svInput(pStart, rClient.nTail + static_cast<std::size_t>(nRead));
    if (!rClient.bIntroduced) {
        svInput.remove_prefix(nIntroduced(fd, rClient, svInput));
    }
    const auto deliver = [&](std::string_view svFrames) {
        for (const int fdReceiver : groups[rClient.nGroup]) {
            rIo.sendAll(fdReceiver, svFrames);
        }
    };
    std::size_t nRun = 0;
    for (std::size_t nLen; (nLen = nWholeFrame(svInput.substr(nRun))) > 0; nRun += nLen) {
        if constexpr (kDelivery == Delivery::kFrames) {
            deliver(svInput.substr(nRun, nLen));
        }
    }
    if (kDelivery == Delivery::kRuns && nRun > 0) {
        deliver(svInput.substr(0, nRun));
    }
    svInput.remove_prefix(nRun);
    rClient.nTail = svInput.size();
    std::memcpy(rClient.achTail, svInput.data(), svInput.size());
}

/// Serves forever at the address and port of the command line.
template <class Io, Delivery kDelivery>
[[noreturn]] void serve(Io& rIo, const char* sAddress, const char* sPort) {
    const int fdListener = fdListenAt(sAddress, sPort);
    const int fdEpoll = epoll_create1(0);
    watch(fdEpoll, fdListener);
    static std::array<epoll_event, 1024> events;
    while (true) {
        const int nReady = epoll_wait(fdEpoll, events.data(), static_cast<int>(events.size()), -1);
        for (int i = 0; i < nReady; ++i) {
            const int fd = events[static_cast<std::size_t>(i)].data.fd;
            if (fd != fdListener) {
                readOnce<Io, kDelivery>(rIo, fd);
                continue;
            }
            for (int fdNew; (fdNew = fdAcceptOne(fdListener)) >= 0;) {
                rIo.take(fdNew);
                watch(fdEpoll, fdNew);
            }
        }
    }
}

}  // namespace Floor
