// A floor: the least that a relay can do that passes a run of datagrams of one length to the kernel
// at once, which splits it, for every receiver.
//   floor_udp_gso ADDRESS PORT
#include <netinet/udp.h>

#include <algorithm>
#include <cstdint>
#include <cstring>

#include "bench/floors/udp_floor.h"

namespace {

// The most that the kernel splits.
constexpr std::size_t kMostSegments = 64;
constexpr std::size_t kMostRunBytes = 65000;

// Datagrams of one length in sequence, and the control message with that length.
struct Run {
    std::array<char, kMostRunBytes> achBytes;
    iovec part{achBytes.data(), 0};
    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(std::uint16_t))> achNote{};
};

Run run;

// Moves datagrams as long as the first one into the run; returns how many.
std::size_t nGather(gsl::span<iovec> datagrams) {
    const std::size_t nLength = datagrams[0].iov_len;
    const std::size_t nMost = std::min(
        {datagrams.size(), kMostSegments, kMostRunBytes / std::max<std::size_t>(nLength, 1)});
    std::size_t n = 0;
    run.part.iov_len = 0;
    for (; n < nMost && datagrams[n].iov_len == nLength; ++n) {
        std::memcpy(run.achBytes.data() + run.part.iov_len, datagrams[n].iov_base, nLength);
        run.part.iov_len += nLength;
    }
    return n;
}

// A single datagram is sent without the control message.
void setNote(msghdr& rHeader, std::size_t nDatagrams) {
    rHeader.msg_control = nDatagrams > 1 ? run.achNote.data() : nullptr;
    rHeader.msg_controllen = nDatagrams > 1 ? run.achNote.size() : 0;
}

void writeNote(std::size_t nLength) {
    const auto nSegment = static_cast<std::uint16_t>(nLength);
    auto* const pNote = reinterpret_cast<cmsghdr*>(run.achNote.data());
    pNote->cmsg_level = IPPROTO_UDP;
    pNote->cmsg_type = UDP_SEGMENT;
    pNote->cmsg_len = CMSG_LEN(sizeof nSegment);
    std::memcpy(CMSG_DATA(pNote), &nSegment, sizeof nSegment);
}

void sendRun(Floor::UdpPort& rPort, std::size_t nDatagrams) {
    static std::array<mmsghdr, Floor::kMostSent> headers;
    std::size_t nQueued = 0;
    for (sockaddr_in& rReceiver : rPort.receivers) {
        msghdr& rHeader = headers[nQueued].msg_hdr;
        rHeader.msg_name = &rReceiver;
        rHeader.msg_namelen = sizeof rReceiver;
        rHeader.msg_iov = &run.part;
        rHeader.msg_iovlen = 1;
        setNote(rHeader, nDatagrams);
        if (++nQueued == headers.size()) {
            Floor::sendAll(rPort.fd, headers);
            nQueued = 0;
        }
    }
    Floor::sendAll(rPort.fd, {headers.data(), nQueued});
}

void forward(Floor::UdpPort& rPort, gsl::span<iovec> datagrams) {
    while (!datagrams.empty()) {
        const std::size_t nDatagrams = nGather(datagrams);
        writeNote(datagrams[0].iov_len);
        sendRun(rPort, nDatagrams);
        datagrams = datagrams.subspan(nDatagrams);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    Floor::serveUdp(argv[1], argv[2], forward);
}
