#include "relayserver/audio/send_batch.h"

#include <netinet/udp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>

namespace {

/// The most that one sendmmsg takes.
constexpr size_t kMaxBatch = 1024;
/// How long a full socket buffer may hold up the loop in one flush. Audio that waits is late for
/// everyone, so what has no room after that is lost.
constexpr int kFullBufferMillis = 10;

/// Datagrams that one header may stand for: the system cuts them apart by their length.
constexpr size_t kMaxSegments = 64;
constexpr size_t kMaxSegmentedBytes = 65000;

/// Tells the system where to cut.
struct alignas(cmsghdr) SegmentLength {
    char achControl[CMSG_SPACE(sizeof(std::uint16_t))];
};

struct Batch {
    int fdSend = -1;
    size_t nQueued = 0;
    std::array<mmsghdr, kMaxBatch> headers;
    std::array<sockaddr_in, kMaxBatch> addresses;
    std::array<SegmentLength, kMaxBatch> lengths;
};

Batch batch;

void setSegmentLength(msghdr& rHeader, SegmentLength& rLength, std::uint16_t nLength) {
    rHeader.msg_control = rLength.achControl;
    rHeader.msg_controllen = sizeof rLength.achControl;
    cmsghdr* const pControl = CMSG_FIRSTHDR(&rHeader);
    pControl->cmsg_level = SOL_UDP;
    pControl->cmsg_type = UDP_SEGMENT;
    pControl->cmsg_len = CMSG_LEN(sizeof nLength);
    std::memcpy(CMSG_DATA(pControl), &nLength, sizeof nLength);
}

bool bGetsRoom() {
    pollfd pfd{batch.fdSend, POLLOUT, 0};
    return poll(&pfd, 1, kFullBufferMillis) > 0;
}

/// Sends from `nFirst` on; returns how many left, -1 with errno when not even the first did.
int nSendFrom(size_t nFirst) {
    int nSent = 0;
    do {
        nSent = sendmmsg(batch.fdSend, &batch.headers[nFirst],
                         static_cast<unsigned>(batch.nQueued - nFirst), MSG_DONTWAIT);
    } while (nSent == -1 && errno == EINTR);
    return nSent;
}

bool bBufferFull(int nSent) {
    return nSent == -1 && (errno == EAGAIN || errno == ENOBUFS);
}

/// Not every network interface can cut datagrams apart, and none those that are longer than its
/// packets. Nothing is gained by trying when there is no room.
void sendOneByOne(const msghdr& refused, bool bNoRoom) {
    if (refused.msg_iovlen == 1 || bNoRoom) {
        return;
    }
    for (size_t i = 0; i < refused.msg_iovlen; ++i) {
        (void)sendto(batch.fdSend, refused.msg_iov[i].iov_base, refused.msg_iov[i].iov_len,
                     MSG_DONTWAIT, static_cast<const sockaddr*>(refused.msg_name),
                     refused.msg_namelen);
    }
}

/// Puts datagrams that one header can stand for into the batch.
void queueSegments(int fdSend, const iovec* pParts, size_t nCount, const sockaddr_in& siTo) {
    if (batch.nQueued == kMaxBatch || fdSend != batch.fdSend) {
        flushDatagrams();
        batch.fdSend = fdSend;
    }
    const size_t i = batch.nQueued++;
    batch.addresses[i] = siTo;
    msghdr& rHeader = batch.headers[i].msg_hdr;
    rHeader = {};
    rHeader.msg_name = &batch.addresses[i];
    rHeader.msg_namelen = sizeof(sockaddr_in);
    // The kernel only reads what it sends.
    rHeader.msg_iov = const_cast<iovec*>(pParts);
    rHeader.msg_iovlen = nCount;
    if (nCount > 1) {
        setSegmentLength(rHeader, batch.lengths[i], static_cast<std::uint16_t>(pParts->iov_len));
    }
}

}  // namespace

void queueDatagrams(int fdSend, const iovec* pParts, size_t nCount, const sockaddr_in& siTo) {
    if (nCount == 1) {
        queueSegments(fdSend, pParts, 1, siTo);
        return;
    }
    // Empty ones cannot be told apart by their length.
    const size_t nLength = pParts->iov_len == 0 ? kMaxSegmentedBytes : pParts->iov_len;
    const size_t nMost = std::clamp<size_t>(kMaxSegmentedBytes / nLength, 1, kMaxSegments);
    for (size_t nDone = 0; nDone < nCount; nDone += nMost) {
        queueSegments(fdSend, pParts + nDone, std::min(nMost, nCount - nDone), siTo);
    }
}

void flushDatagrams() {
    bool bMayWait = true;
    for (size_t nDone = 0; nDone < batch.nQueued;) {
        int nSent = nSendFrom(nDone);
        if (bBufferFull(nSent) && bMayWait) {
            bMayWait = false;  // half of the buffer is free afterwards: room for the whole batch
            nSent = bGetsRoom() ? nSendFrom(nDone) : nSent;
        }
        if (nSent <= 0) {
            // What is refused is passed over, for the sake of those behind it.
            sendOneByOne(batch.headers[nDone].msg_hdr, bBufferFull(nSent));
            nSent = 1;
        }
        nDone += static_cast<size_t>(nSent);
    }
    batch.nQueued = 0;
}
