/// What the TCP floors share: the listener, the framing, the receivers of each source.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Floor {

constexpr std::size_t kMaxFrame = 510;

/// The length of the frame at the start of `svInput`, 0 while it is incomplete.
inline std::size_t nWholeFrame(std::string_view svInput) {
    if (svInput.empty()) {
        return 0;
    }
    const std::size_t nLen = 2 * static_cast<std::size_t>(static_cast<unsigned char>(svInput[0]));
    return nLen != 0 && nLen <= svInput.size() ? nLen : 0;
}

/// One connection, indexed by its descriptor.
struct Client {
    bool bIntroduced = false;
    std::uint32_t nGroup = 0;
    std::size_t nTail = 0;  ///< bytes of an incomplete frame
    char achTail[kMaxFrame] = {};
};

/// Descriptors of the receivers of each group.
extern std::vector<std::vector<int>>& groups;

/// The client with this descriptor; created if there is none.
Client& rClientOf(int fd);

/// Reads the first frame of a connection; returns its length, 0 while it is incomplete.
std::size_t nIntroduced(int fd, Client& rClient, std::string_view svInput);

/// The descriptor of a listening socket at the dotted address and port of the command line; ends
/// the program when that fails.
int fdListenAt(const char* sAddress, const char* sPort);

/// Accepts one pending connection; non-blocking, without Nagle's algorithm. Returns the descriptor,
/// or -1 when none is pending.
int fdAcceptOne(int fdListener);

/// Waits until there is room in a socket's send buffer.
void awaitRoom(int fd);

/// Watches a descriptor for input.
void watch(int fdEpoll, int fd);

}  // namespace Floor
