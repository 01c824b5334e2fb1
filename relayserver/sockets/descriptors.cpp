#include "relayserver/sockets/descriptors.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

void occupyStandardDescriptors() {
    // open() takes the lowest free number: this fills the gaps below 3 and stops above them.
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd <= STDERR_FILENO) {
        fd = open("/dev/null", O_RDWR);
    }
    if (fd > STDERR_FILENO) {
        close(fd);
    }
    const int fdNeverReady = eventfd(0, EFD_NONBLOCK);
    if (fdNeverReady > STDERR_FILENO) {
        dup2(fdNeverReady, STDIN_FILENO);
        close(fdNeverReady);
    }
}

void raiseDescriptorLimit() {
    rlimit rlLimit{};
    if (getrlimit(RLIMIT_NOFILE, &rlLimit) == 0) {
        rlLimit.rlim_cur = rlLimit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &rlLimit);
    }
}
