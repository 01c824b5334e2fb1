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

/// The most messages that one sendmmsg takes.
constexpr size_t kMaxBatch = 1024;
/// How long a full socket buffer may delay the event loop in one flush. Waiting makes audio late
/// for every receiver, so datagrams that have no room after that are lost.
constexpr int kFullBufferMillis = 10;

/// Limits on the datagrams that one message header may represent; the kernel splits them by length
/// (UDP segmentation offload).
constexpr size_t kMaxSegments = 64;
constexpr size_t kMaxSegmentedBytes = 65000;

/// The control message that gives the kernel the length of a segment.
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

[[nodiscard]] bool bWaitForRoom() {
    pollfd pfd{batch.fdSend, POLLOUT, 0};
    return poll(&pfd, 1, kFullBufferMillis) > 0;
}

/// Sends from `nFirst` on; returns how many were sent, -1 with errno if not even the first was.
int nSendFrom(size_t nFirst) {
    int nSent = 0;
    do {
        nSent = sendmmsg(batch.fdSend, &batch.headers[nFirst],
                         static_cast<unsigned>(batch.nQueued - nFirst), MSG_DONTWAIT);
    } while (nSent == -1 && errno == EINTR);
    return nSent;
}

[[nodiscard]] bool bBufferFull(int nSent) {
    return nSent == -1 && (errno == EAGAIN || errno == ENOBUFS);
}

/// Not every network interface can segment datagrams, and none can if they exceed its MTU. Without
/// room in the buffer a retry is pointless.
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

/// Adds datagrams that fit one message header to the batch.
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
    // Empty datagrams cannot be split by length.
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
            bMayWait = false;  // half of the buffer is free then: room for the whole batch
            nSent = bWaitForRoom() ? nSendFrom(nDone) : nSent;
        }
        if (nSent <= 0) {
            // A refused datagram is skipped, so that those after it are sent.
            sendOneByOne(batch.headers[nDone].msg_hdr, bBufferFull(nSent));
            nSent = 1;
        }
        nDone += static_cast<size_t>(nSent);
    }
    batch.nQueued = 0;
}
