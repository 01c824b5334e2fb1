#include "relayserver/sockets/descriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Whether `bCheck` holds in a process of its own, whose descriptors may be closed at will.
bool bHoldsInChild(bool (*bCheck)()) {
    const pid_t nChild = fork();
    if (nChild == 0) {
        _exit(bCheck() ? 0 : 1);
    }
    int nStatus = -1;
    return waitpid(nChild, &nStatus, 0) == nChild && WIFEXITED(nStatus) &&
           WEXITSTATUS(nStatus) == 0;
}

bool bIsOpen(int fd) {
    return fcntl(fd, F_GETFD) != -1;
}

bool bStandardDescriptorsOpen() {
    return bIsOpen(STDIN_FILENO) && bIsOpen(STDOUT_FILENO) && bIsOpen(STDERR_FILENO);
}

TEST(Descriptors, ClosedStandardDescriptorsAreOccupied) {
    EXPECT_TRUE(bHoldsInChild([] {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        occupyStandardDescriptors();
        return bStandardDescriptorsOpen();
    }));
}

TEST(Descriptors, OneClosedStandardDescriptorIsOccupied) {
    EXPECT_TRUE(bHoldsInChild([] {
        close(STDOUT_FILENO);
        occupyStandardDescriptors();
        return bStandardDescriptorsOpen();
    }));
}

TEST(Descriptors, NothingElseStaysOpen) {
    EXPECT_TRUE(bHoldsInChild([] {
        const int fdLowest = dup(STDERR_FILENO);
        close(fdLowest);
        occupyStandardDescriptors();
        return dup(STDERR_FILENO) == fdLowest;
    }));
}

TEST(Descriptors, OpenOutputsAreLeftAlone) {
    EXPECT_TRUE(bHoldsInChild([] {
        int fds[2] = {-1, -1};
        if (pipe(fds) == -1 || dup2(fds[1], STDOUT_FILENO) == -1) {
            return false;
        }
        occupyStandardDescriptors();
        char chByte = 0;
        return write(STDOUT_FILENO, "x", 1) == 1 && read(fds[0], &chByte, 1) == 1 && chByte == 'x';
    }));
}

TEST(Descriptors, StandardInputIsNeverReady) {
    EXPECT_TRUE(bHoldsInChild([] {
        close(STDIN_FILENO);  // the end of a pipe or /dev/null would be readable for ever
        occupyStandardDescriptors();
        pollfd pfd{STDIN_FILENO, POLLIN, 0};
        return poll(&pfd, 1, 0) == 0;
    }));
}

TEST(Descriptors, TheSoftLimitIsRaisedToTheHardOne) {
    EXPECT_TRUE(bHoldsInChild([] {
        rlimit rlLimit{};
        getrlimit(RLIMIT_NOFILE, &rlLimit);
        const rlim_t nHard = rlLimit.rlim_max;
        rlLimit.rlim_cur = 64;
        setrlimit(RLIMIT_NOFILE, &rlLimit);
        raiseDescriptorLimit();
        getrlimit(RLIMIT_NOFILE, &rlLimit);
        return rlLimit.rlim_cur == nHard && rlLimit.rlim_max == nHard;
    }));
}

}  // namespace
