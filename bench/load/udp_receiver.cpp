#include "bench/load/udp_receiver.h"

#include <sys/socket.h>

#include <array>

#include "bench/load/cpu_clock.h"

namespace Load {

namespace {

constexpr std::size_t kMostAtOnce = 256;
constexpr std::size_t kMostBytes = 2048;

/// Shared by all receivers.
struct Input {
    std::array<mmsghdr, kMostAtOnce> headers{};
    std::array<iovec, kMostAtOnce> parts{};
    std::array<std::array<char, kMostBytes>, kMostAtOnce> buffers;

    Input() {
        for (std::size_t i = 0; i < kMostAtOnce; ++i) {
            parts[i] = {buffers[i].data(), kMostBytes};
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
    }
};

Input& rSharedInput() {
    static Input input;
    return input;
}

}  // namespace

void UdpReceiver::readOnce(Findings& rFindings) {
    Input& rInput = rSharedInput();
    const int nReceived =
        recvmmsg(socket.getFileDesc(), rInput.headers.data(), kMostAtOnce, MSG_DONTWAIT, nullptr);
    const std::int64_t nNow = rFindings.bLatencies ? nMonotonicNs() : 0;
    for (int n = 0; n < nReceived; ++n) {
        const auto i = static_cast<std::size_t>(n);
        if (rInput.headers[i].msg_len == nFrameLen) {
            sequence.take(rInput.buffers[i].data(), nNow, rFindings);
        } else {
            ++rFindings.nWrong;
        }
    }
}

}  // namespace Load
