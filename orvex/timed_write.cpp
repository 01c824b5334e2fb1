#include "orvex/timed_write.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "orvex/nonblocking_guard.h"
#include "orvex/tls_errors.h"

namespace {

/// Why one attempt wrote nothing.
enum class Refusal { kNoRoom, kFailed };

/// The result of a wait for room. `kGivenUp` ends the write without a failure.
enum class Wait { kReady, kGivenUp, kFailed };

/// `send` has a flag that prevents SIGPIPE; `SSL_write` and `write` have none, so threads that use
/// them block the signal. In the daemon it is blocked already, and this changes nothing.
void blockSigPipeInThisThread() {
    thread_local const bool bBlocked = [] {
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, SIGPIPE);
        return pthread_sigmask(SIG_BLOCK, &set, nullptr) == 0;
    }();
    (void)bBlocked;
}

int nWriteToNonSocket(int fd, const void* pData, int nBytes, bool bDontWait) {
    blockSigPipeInThisThread();
    if (!bDontWait) {
        return static_cast<int>(write(fd, pData, static_cast<std::size_t>(nBytes)));
    }
    const NonBlockingGuard guard(fd);
    return static_cast<int>(write(fd, pData, static_cast<std::size_t>(nBytes)));
}

int nWriteOnce(const TimedWrite& job, int nWritten) {
    const unsigned char* pRest = job.pData + nWritten;
    const int nRest = job.nBytes - nWritten;
    if (job.pSSL == nullptr) {
        return nWritePlain(job.fd, pRest, nRest, MSG_DONTWAIT);
    }
    Orvex::forgetTlsErrors();
    return SSL_write(job.pSSL, pRest, nRest);
}

Refusal classifyPlain(bool bReportedReady) {
    const int nErrno = errno;
    const bool bTransient = nErrno == EAGAIN || nErrno == EINTR;
    // Whether a descriptor can be waited for at all is checked by the wait.
    if (!bReportedReady && (bTransient || nErrno == EBADF)) {
        return Refusal::kNoRoom;
    }
    if (bTransient) {
        std::puts("orvex write - EAGAIN/EINTR");
    } else {
        std::printf("orvex msg write - errno = %s\n", std::strerror(nErrno));
    }
    errno = nErrno;
    return Refusal::kFailed;
}

void reportSslFailure(const TimedWrite& job, int nSslError) {
    if (job.psErrorText == nullptr) {
        std::printf("ssl error from write: %d\n", nSslError);
    } else if (nSslError == SSL_ERROR_WANT_WRITE) {
        *job.psErrorText = "SSL_ERROR_WANT_WRITE during SSL write, choosing close";
    } else if (nSslError == SSL_ERROR_WANT_READ) {
        *job.psErrorText = "SSL_ERROR_WANT_READ during SSL write, choosing close";
    } else {
        *job.psErrorText = "SSL lib error on write, unrecoverable";
    }
}

Refusal classifySsl(const TimedWrite& job, int nResult, bool bReportedReady) {
    const int nErrno = errno;
    const int nSslError = SSL_get_error(job.pSSL, nResult);
    if (nSslError == SSL_ERROR_WANT_WRITE && !bReportedReady) {
        return Refusal::kNoRoom;
    }
    reportSslFailure(job, nSslError);
    errno = nErrno;
    return Refusal::kFailed;
}

/// For a descriptor that cannot be waited for: the free functions print that and fail; the member,
/// which has never checked, behaves as after a time-out.
Wait onBadDescriptor(const TimedWrite& job) {
    if (job.psErrorText == nullptr) {
        std::printf("orvex write_n_with_timeout_ssl, epoll_ctl returning error - strerror=%s\n",
                    std::strerror(EBADF));
        return Wait::kFailed;
    }
    std::puts("orvex write msg to TCP buffer timed out");
    return Wait::kGivenUp;
}

Wait waitForRoom(const TimedWrite& job) {
    pollfd pfd{job.fd, POLLOUT, 0};
    const int nReady = poll(&pfd, 1, job.nTimeoutMillis);
    if (nReady < 0) {
        const int nErrno = errno;
        std::printf("orvex write msg - epoll return code %d, error=%s", nReady,
                    std::strerror(nErrno));
        std::printf("orvex write msg returning error - strerror=%s\n", std::strerror(nErrno));
        return Wait::kFailed;
    }
    if (job.fd < 0 || (pfd.revents & POLLNVAL) != 0) {
        return onBadDescriptor(job);
    }
    if (nReady == 0) {
        std::puts("orvex write msg to TCP buffer timed out");
        return Wait::kGivenUp;
    }
    if ((pfd.revents & POLLOUT) == 0) {
        std::printf("unexpected epoll return %u\n", static_cast<unsigned>(pfd.revents));
        return Wait::kGivenUp;
    }
    return Wait::kReady;
}

/// After an attempt that wrote nothing.
Wait waitAfterRefusal(const TimedWrite& job, int nResult, bool bReportedReady) {
    const Refusal refusal = job.pSSL == nullptr ? classifyPlain(bReportedReady)
                                                : classifySsl(job, nResult, bReportedReady);
    if (refusal == Refusal::kFailed) {
        std::printf("orvex write msg returning error - strerror=%s\n", std::strerror(errno));
        return Wait::kFailed;
    }
    return waitForRoom(job);
}

}  // namespace

int nTimeoutMillis(int timeoutSecs, int timeoutMicroSecs) {
    const std::int64_t nMillis = std::int64_t{timeoutSecs} * 1000 + timeoutMicroSecs / 1000;
    return static_cast<int>(std::clamp<std::int64_t>(nMillis, INT_MIN, INT_MAX));
}

int nWritePlain(int fd, const void* pData, int nBytes, int nFlags) {
    const auto nSent = send(fd, pData, static_cast<std::size_t>(nBytes), nFlags | MSG_NOSIGNAL);
    if (nSent < 0 && errno == ENOTSOCK) {
        return nWriteToNonSocket(fd, pData, nBytes, (nFlags & MSG_DONTWAIT) != 0);
    }
    return static_cast<int>(nSent);
}

int nFinishWrite(const TimedWrite& job, int nResult) {
    int nOwnCount = 0;
    int& rnWritten = job.pnWritten == nullptr ? nOwnCount : *job.pnWritten;
    rnWritten = 0;
    bool bReportedReady = false;
    while (true) {
        if (nResult > 0) {
            rnWritten += nResult;
            if (rnWritten >= job.nBytes) {
                return rnWritten;
            }
            bReportedReady = false;
        } else {
            const Wait wait = waitAfterRefusal(job, nResult, bReportedReady);
            if (wait != Wait::kReady) {
                return wait == Wait::kFailed ? -1 : rnWritten;
            }
            bReportedReady = true;
        }
        nResult = nWriteOnce(job, rnWritten);
    }
}

int nTimedWrite(const TimedWrite& job) {
    if (job.nBytes <= 0) {
        return 0;
    }
    if (job.pSSL != nullptr) {
        blockSigPipeInThisThread();
        SSL_set_mode(job.pSSL, SSL_MODE_ENABLE_PARTIAL_WRITE);
    }
    return nFinishWrite(job, nWriteOnce(job, 0));
}
