#include "connserver/redundancy_file.h"

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <string_view>

#include "base/get_strerror.h"
#include "connserver/file_system_ops.h"
#include "connserver/logging.h"
#include "connserver/semaphore_lock.h"

namespace {

/// Where files are created. The deployment fixes the directory.
constexpr char kTemplate[] = "/home/kov/dbserver/tmp/csXXXXXX";

/// The directory in it from which finished files are moved, and the one to which they go.
constexpr std::size_t kTmpPosition = 19;
constexpr std::string_view kTmp = "tmp";
constexpr std::string_view kOutbound = "readyForOutbound";
static_assert(std::string_view(kTemplate).substr(kTmpPosition, kTmp.size()) == kTmp);

constexpr unsigned kFinishedMode = 0755;
constexpr int kClosed = -12;

/// The file being written, or `kClosed`, or -1 when it could not be created.
int pRedundancyInfoFile = kClosed;

/// Guards `pRedundancyInfoFile`. Initialised before its first use and never destroyed.
sem_t& semRedundancyFilePtrSafe() {
    static sem_t sem;
    [[maybe_unused]] static const int nReady = sem_init(&sem, 0, 1);
    return sem;
}

bool bWriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t nWritten = write(fd, text.data(), text.size());
        if (nWritten < 0 && errno == EINTR) {
            continue;
        }
        if (nWritten <= 0) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(nWritten));
    }
    return true;
}

/// Writes the transaction to the open file and closes it.
void writeTransaction(const char* info) {
    const int fd = pRedundancyInfoFile;
    const bool bWritten = bWriteAll(fd, "BEGIN;\n") && bWriteAll(fd, info) &&
                          bWriteAll(fd, ";\n") && bWriteAll(fd, "COMMIT;\n");
    const int nError = errno;
    close(fd);
    pRedundancyInfoFile = kClosed;
    if (!bWritten) {
        writeToLog(true, "WARNING: redundancy file not written: %s\n",
                   get_strerror(nError).c_str());
    }
}

/// The same name in the directory for finished files; empty if the path is not in the first one.
std::string sOutboundPath(const std::string& sPath) {
    if (sPath.size() < kTmpPosition + kTmp.size() ||
        sPath.compare(kTmpPosition, kTmp.size(), kTmp) != 0) {
        return "";
    }
    std::string sOutbound = sPath;
    return sOutbound.replace(kTmpPosition, kTmp.size(), kOutbound);
}

}  // namespace

void semCleanupHandler(void* sem) {
    sem_post(static_cast<sem_t*>(sem));
}

void redundantInfoToSend(const char* info, FileSystemOps* ops) {
    if (bIsSimpleLogging() && !ops->testingRedundancy()) {
        return;
    }
    char achPath[sizeof kTemplate];
    std::memcpy(achPath, kTemplate, sizeof kTemplate);
    sem_t* const pSemaphore = &semRedundancyFilePtrSafe();
    while (sem_wait(pSemaphore) != 0 && errno == EINTR) {
    }
    // From here on a cancelled thread must release the semaphore as well, so a lock is not enough.
    pthread_cleanup_push(semCleanupHandler, pSemaphore);
    pRedundancyInfoFile = ops->makeTempFile(achPath);
    if (pRedundancyInfoFile >= 0) {
        writeTransaction(info);
    }
    pthread_cleanup_pop(1);

    // Done even when there is no file, as the external job expects; the results then show it.
    const std::string sPath(achPath, strnlen(achPath, sizeof achPath));
    (void)ops->changeFileMode(sPath, kFinishedMode);
    const std::string sOutbound = sOutboundPath(sPath);
    if (sOutbound.empty() || ops->moveFile(sPath, sOutbound) != 0) {
        writeToLog(true, "WARNING: redundancy file %s not moved\n", sPath.c_str());
    }
}

void closeRedundancyInfoFile() {
    const SemaphoreLock lock(semRedundancyFilePtrSafe());
    if (pRedundancyInfoFile >= 0) {
        close(pRedundancyInfoFile);
    }
    pRedundancyInfoFile = kClosed;
}
