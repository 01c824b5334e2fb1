/// Makes a descriptor non-blocking for a scope and restores its flags at the end. Any thread.
#pragma once

#include <fcntl.h>

#include <cerrno>

class NonBlockingGuard {
  public:
    /// Adds O_NONBLOCK. A bad descriptor has no effect, here and at the end.
    explicit NonBlockingGuard(int fdGuarded) : fd(fdGuarded), nFlags(fcntl(fd, F_GETFL, 0)) {
        if (bMustRestore()) {
            (void)fcntl(fd, F_SETFL, nFlags | O_NONBLOCK);  // the next call shows whether it worked
        }
    }
    /// Restores the flags and keeps `errno`, which callers still need.
    ~NonBlockingGuard() {
        if (bMustRestore()) {
            const int nErrno = errno;
            (void)fcntl(fd, F_SETFL, nFlags);
            errno = nErrno;
        }
    }
    NonBlockingGuard(const NonBlockingGuard&) = delete;
    NonBlockingGuard& operator=(const NonBlockingGuard&) = delete;

  private:
    [[nodiscard]] bool bMustRestore() const { return nFlags >= 0 && (nFlags & O_NONBLOCK) == 0; }

    int fd;
    int nFlags;  ///< negative when the descriptor is bad
};
