#include "relayserver/audio/send_batch.h"

#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

namespace {

/// The most that one sendmmsg takes.
constexpr size_t kMaxBatch = 1024;
/// How long a full socket buffer may hold up the loop in one flush. Audio that waits is late for
/// everyone, so what has no room after that is lost.
constexpr int kFullBufferMillis = 10;

struct Batch {
    int fdSend = -1;
    size_t nQueued = 0;
    std::array<mmsghdr, kMaxBatch> headers;
    std::array<iovec, kMaxBatch> parts;
    std::array<sockaddr_in, kMaxBatch> addresses;
};

Batch batch;

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

}  // namespace

void queueDatagram(int fdSend, const char* achDatagram, size_t nLength, const sockaddr_in& siTo) {
    if (batch.nQueued == kMaxBatch || fdSend != batch.fdSend) {
        flushDatagrams();
        batch.fdSend = fdSend;
    }
    const size_t i = batch.nQueued++;
    batch.addresses[i] = siTo;
    // The kernel only reads what it sends.
    batch.parts[i] = {const_cast<char*>(achDatagram), nLength};
    msghdr& rHeader = batch.headers[i].msg_hdr;
    rHeader = {};
    rHeader.msg_name = &batch.addresses[i];
    rHeader.msg_namelen = sizeof(sockaddr_in);
    rHeader.msg_iov = &batch.parts[i];
    rHeader.msg_iovlen = 1;
}

void flushDatagrams() {
    bool bMayWait = true;
    for (size_t nDone = 0; nDone < batch.nQueued;) {
        int nSent = nSendFrom(nDone);
        if (bBufferFull(nSent) && bMayWait) {
            bMayWait = false;  // half of the buffer is free afterwards: room for the whole batch
            nSent = bGetsRoom() ? nSendFrom(nDone) : nSent;
        }
        // One that is refused is passed over, for the sake of those behind it.
        nDone += nSent > 0 ? static_cast<size_t>(nSent) : 1;
    }
    batch.nQueued = 0;
}
