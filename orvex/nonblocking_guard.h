/// Makes a descriptor non-blocking for a scope and leaves its flags as they were.
#pragma once

#include <fcntl.h>

#include <cerrno>

class NonBlockingGuard {
  public:
    explicit NonBlockingGuard(int fdGuarded) : fd(fdGuarded), nFlags(fcntl(fd, F_GETFL, 0)) {
        if (bMustRestore()) {
            (void)fcntl(fd, F_SETFL, nFlags | O_NONBLOCK);  // what follows shows whether it worked
        }
    }
    /// Keeps `errno`, which callers still want to read.
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
