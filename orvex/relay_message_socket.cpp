#include "orvex/relay_message_socket.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

#include "orvex/nonblocking_guard.h"
#include "orvex/timed_write.h"
#include "orvex/tls_errors.h"

namespace Orvex {

RelayMessageSocket::RelayMessageSocket() : RelayMessageSocket(-1, sockaddr_in{}, nullptr) {}

RelayMessageSocket::RelayMessageSocket(int fd, sockaddr_in address)
    : RelayMessageSocket(fd, address, nullptr) {}

RelayMessageSocket::RelayMessageSocket(int fd, sockaddr_in address, SSL* ssl)
    : sckMsgSockFileDesc(fd), siAddress(address), pSSL(ssl) {}

bool RelayMessageSocket::bCheckSocket() {
    pollfd pfd{sckMsgSockFileDesc, POLLIN, 0};
    int nReady = poll(&pfd, 1, 0);
    if (sckMsgSockFileDesc < 0 || (pfd.revents & POLLNVAL) != 0) {
        nReady = -1;  // poll ignores a bad descriptor; here it is an error
    }
    if (nReady < 0) {
        _lastErrorString = "select failed with code " + std::to_string(nReady);
        return false;
    }
    return nReady > 0;
}

/// One read of at most `nRoom` bytes, which are added to those held.
int RelayMessageSocket::nReadSome(int nRoom) {
    int nResult = 0;
    if (pSSL != nullptr) {
        forgetTlsErrors();
        nResult = SSL_read(pSSL, inputBuffer.pTail(), nRoom);
    } else {
        nResult = static_cast<int>(
            read(sckMsgSockFileDesc, inputBuffer.pTail(), static_cast<std::size_t>(nRoom)));
    }
    if (nResult > 0) {
        inputBuffer.added(nResult);
    }
    return nResult;
}

int RelayMessageSocket::nReadSocket(bool bBlockNotCheck) {
    if (!bBlockNotCheck && !bCheckSocket()) {
        return 0;
    }
    const int nRoom = inputBuffer.nMakeRoom(kReadBufferSize);
    return nRoom > 0 ? nReadSome(nRoom) : 0;
}

/// Whether a read without result only means that there is nothing to read; otherwise stores the
/// reason.
bool RelayMessageSocket::bGoOnAfterFailedRead(int nResult) {
    if (pSSL == nullptr) {
        const int nErrno = errno;
        if (nResult < 0 && nErrno == EAGAIN) {
            return true;
        }
        _lastErrorString = nResult == 0 ? "read returned EOF"
                                        : "read returned error code " + std::to_string(nErrno);
        return false;
    }
    const int nSslError = SSL_get_error(pSSL, nResult);
    if (nSslError == SSL_ERROR_WANT_READ || nSslError == SSL_ERROR_WANT_WRITE) {
        return true;
    }
    const bool bEnded = nResult == 0 || nSslError == SSL_ERROR_ZERO_RETURN;
    _lastErrorString = bEnded ? "SSL read returned EOF" : "SSL lib error";
    return false;
}

int RelayMessageSocket::nReadNonBlockingSocket() {
    int nRoom = inputBuffer.nMakeRoom(kReadBufferSize);
    int nTotal = 0;
    // Reading stops at a full buffer: a read of no bytes would look like the end of the stream.
    while (nTotal < kNonBlockingReadMax && nRoom > 0) {
        const int nResult = nReadSome(nRoom);
        if (nResult <= 0) {
            return bGoOnAfterFailedRead(nResult) ? nTotal : -1;
        }
        nTotal += nResult;
        nRoom -= nResult;
    }
    return nTotal;
}

int RelayMessageSocket::nReadBurst() {
    if (pSSL != nullptr) {
        // One system call then reads as many records as there are, not just a record header.
        SSL_set_read_ahead(pSSL, 1);
    }
    bBurstCutShort = false;
    int nRoom = inputBuffer.nMakeRoom(InputBuffer::kBlockSize);
    int nTotal = 0;
    for (int nReads = 0; nRoom > 0 && nReads < kBurstReadsMax; ++nReads) {
        const int nResult = nReadSome(nRoom);
        if (nResult <= 0) {
            return bGoOnAfterFailedRead(nResult) ? nTotal : -1;
        }
        nTotal += nResult;
        nRoom -= nResult;
        if (pSSL == nullptr || SSL_has_pending(pSSL) == 0) {
            return nTotal;  // an event announces what is still in the kernel
        }
    }
    bBurstCutShort = pSSL != nullptr;
    return nTotal;
}

bool RelayMessageSocket::bDequeueNetMessage(char* chpOutNetMsg, int* nrOutNetMsgLen) {
    const auto image = inputBuffer.dequeueView();
    if (!image) {
        return false;
    }
    std::memcpy(chpOutNetMsg, image->data(), image->size());
    *nrOutNetMsgLen = static_cast<int>(image->size());
    return true;
}

bool RelayMessageSocket::bHasMoreInput() const {
    return bBurstCutShort || (pSSL != nullptr && SSL_pending(pSSL) > 0) ||
           inputBuffer.bFrameWaits();
}

bool RelayMessageSocket::bKnownNonBlocking(int f) {
    if (f != sckMsgSockFileDesc) {
        return false;
    }
    if (!bSeenNonBlocking) {
        const int nFlags = fcntl(f, F_GETFL, 0);
        bSeenNonBlocking = nFlags >= 0 && (nFlags & O_NONBLOCK) != 0;
    }
    return bSeenNonBlocking;
}

int RelayMessageSocket::write_n_with_timeout(int f, const void* addr, int n, int timeoutSecs,
                                             int timeoutMicroSecs) {
    const auto job = [&] {
        return TimedWrite{f,
                          static_cast<const unsigned char*>(addr),
                          n,
                          nTimeoutMillis(timeoutSecs, timeoutMicroSecs),
                          pSSL,
                          &_lastErrorString,
                          &nWrittenLast};
    };
    nWrittenLast = 0;
    if (pSSL == nullptr && n > 0) {
        // Nearly every write ends here: most deliveries cost a single system call.
        const int nSent = nWritePlain(f, addr, n, MSG_DONTWAIT);
        nWrittenLast = nSent;
        return nSent == n ? n : nFinishWrite(job(), nSent);
    }
    std::optional<NonBlockingGuard> guard;
    if (pSSL != nullptr && !bKnownNonBlocking(f)) {
        guard.emplace(f);  // a plain write passes MSG_DONTWAIT instead
    }
    return nTimedWrite(job());
}

}  // namespace Orvex
