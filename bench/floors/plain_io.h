/// Reading and writing for the plain TCP floors.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "bench/floors/framing.h"

namespace Floor {

/// Reads up to `kSize` bytes at once.
template <std::size_t kSize>
struct PlainIo {
    static constexpr std::size_t kReadSize = kSize;

    static void take(int /*fd*/) {}

    static ssize_t nRead(int fd, char* pBuffer, std::size_t nRoom) {
        const ssize_t nGot = recv(fd, pBuffer, nRoom, 0);
        if (nGot > 0 || (nGot < 0 && errno == EAGAIN)) {
            return nGot > 0 ? nGot : 0;
        }
        close(fd);
        return -1;
    }

    static void sendAll(int fd, std::string_view svData) {
        while (!svData.empty()) {
            const ssize_t nSent = send(fd, svData.data(), svData.size(), MSG_NOSIGNAL);
            if (nSent > 0) {
                svData.remove_prefix(static_cast<std::size_t>(nSent));
            } else if (errno == EAGAIN) {
                awaitRoom(fd);
            } else {
                return;
            }
        }
    }
};

}  // namespace Floor
