#include "orvex/misc_utils.h"

#include <netinet/in.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "orvex/nonblocking_guard.h"
#include "orvex/timed_write.h"

namespace {

bool bTransientError() {
    return errno == EAGAIN || errno == EINTR;
}

bool bBecomesWritable(int f, int nMillis) {
    pollfd pfd{f, POLLOUT, 0};
    return poll(&pfd, 1, nMillis) > 0 && (pfd.revents & POLLOUT) != 0;
}

}  // namespace

int util_write_n(int fd, const void* buf, int n) {
    const auto* pData = static_cast<const unsigned char*>(buf);
    int nWritten = 0;
    while (nWritten < n) {
        const int nResult = nWritePlain(fd, pData + nWritten, n - nWritten, 0);
        if (nResult >= 0) {
            nWritten += nResult;
        } else if (!bTransientError()) {
            return -1;
        }
    }
    return n;
}

int util_read_n(int fd, void* buf, int n) {
    auto* pData = static_cast<unsigned char*>(buf);
    int nRead = 0;
    while (nRead < n) {
        const auto nResult = read(fd, pData + nRead, static_cast<std::size_t>(n - nRead));
        if (nResult == 0) {
            break;
        }
        if (nResult > 0) {
            nRead += static_cast<int>(nResult);
        } else if (!bTransientError()) {
            return -1;
        }
    }
    return nRead;
}

int write_n_with_timeout(int f, const void* addr, int n, int timeoutSecs, int timeoutMicroSecs) {
    return write_n_with_timeout_ssl(f, addr, n, timeoutSecs, timeoutMicroSecs, nullptr);
}

int write_n_with_timeout_ssl(int f, const void* addr, int n, int timeoutSecs, int timeoutMicroSecs,
                             SSL* ssl) {
    std::optional<NonBlockingGuard> guard;
    if (ssl != nullptr) {
        guard.emplace(f);  // a plain write passes MSG_DONTWAIT instead
    }
    return nTimedWrite({f, static_cast<const unsigned char*>(addr), n,
                        nTimeoutMillis(timeoutSecs, timeoutMicroSecs), ssl, nullptr});
}

int connect_with_timeout(int f, sockaddr* sa, int timeoutSecs, int timeoutMicroSecs) {
    const NonBlockingGuard guard(f);
    if (connect(f, sa, sizeof(sockaddr_in)) == 0) {
        return 0;
    }
    if (errno != EINPROGRESS) {
        return -1;
    }
    return bBecomesWritable(f, nTimeoutMillis(timeoutSecs, timeoutMicroSecs)) ? 0 : -1;
}

int accept_nonblock(int f, sockaddr* sa) {
    const NonBlockingGuard guard(f);
    socklen_t nLen = sizeof(sockaddr_in);
    const int fdNew = accept(f, sa, &nLen);
    if (fdNew == 0) {
        close(fdNew);  // descriptor 0 counts as failure; the peer must not be left half-open
        return -1;
    }
    return fdNew < 0 ? -1 : fdNew;
}
