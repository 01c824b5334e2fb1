#include "connserver/log_file.h"

#include <semaphore.h>

#include <cstdio>
#include <cstring>

#include "connserver/semaphore_lock.h"

namespace {

constexpr std::int64_t kMaxLines = 60'000'000;

// Nothing here has a destructor, because the logging thread may still write while `exit` runs.

/// The semaphore is initialised before its first use and never destroyed.
sem_t& semLogFilePtrSafe() {
    static sem_t sem;
    [[maybe_unused]] static const int nReady = sem_init(&sem, 0, 1);
    return sem;
}

FILE* pLogFile = nullptr;     ///< Null while lines go to standard output.
std::int64_t lNumLines = 0;   ///< Lines written to the file since it was opened.
char logfilename[1024] = "";  ///< As read from the marker, without its newline. Main thread.

/// Reads the first line of the marker into `logfilename`. A marker that is empty gives an empty
/// name, and then no file opens.
bool bReadMarker(const std::string& sDirectory) {
    FILE* pFileName = std::fopen((sDirectory + "sys/currentlyusedlogfile.name").c_str(), "re");
    if (pFileName == nullptr) {
        return false;
    }
    if (std::fgets(logfilename, sizeof logfilename, pFileName) == nullptr) {
        logfilename[0] = '\0';
    }
    std::fclose(pFileName);
    const std::size_t nLength = std::strlen(logfilename);
    if (nLength > 0 && logfilename[nLength - 1] == '\n') {
        logfilename[nLength - 1] = '\0';
    }
    return true;
}

void writeText(FILE* pOut, const std::string& sText) {
    // On a full disk lines are lost; there is nowhere to report it, and the next ones are tried
    // again.
    (void)std::fwrite(sText.data(), 1, sText.size(), pOut);
}

/// In one call, because standard output would write line by line.
void writeToStandardOutput(const std::deque<std::string>& lines) {
    std::string sText;
    for (const std::string& sLine : lines) {
        sText += sLine;
    }
    writeText(stdout, sText);
    std::fflush(stdout);
}

void writeLineToFile(const std::string& sLine) {
    if (lNumLines == kMaxLines) {
        std::fprintf(pLogFile, "Log File Truncated at %ld lines\n", static_cast<long>(kMaxLines));
        ++lNumLines;
    } else if (lNumLines < kMaxLines) {
        writeText(pLogFile, sLine);
        ++lNumLines;
    }
}

/// Makes `pNew` the log file and closes the previous one.
void exchangeLogFile(FILE* pNew) {
    FILE* pOld = nullptr;
    {
        const SemaphoreLock lock(semLogFilePtrSafe());
        pOld = pLogFile;
        pLogFile = pNew;
        lNumLines = 0;
    }
    // Outside the lock, so that the logging thread need not wait for the disk of the old file.
    if (pOld != nullptr) {
        std::fclose(pOld);
    }
}

}  // namespace

LogFileResult openLogFile(const std::string& sDirectory) {
    if (!bReadMarker(sDirectory)) {
        return LogFileResult::kNoMarker;
    }
    FILE* pNew = std::fopen((sDirectory + logfilename).c_str(), "ae");
    if (pNew == nullptr) {
        return LogFileResult::kNoLogFile;
    }
    exchangeLogFile(pNew);
    return LogFileResult::kOpened;
}

std::string sLogFileName() {
    return logfilename;
}

void writeLogLines(const std::deque<std::string>& lines) {
    const SemaphoreLock lock(semLogFilePtrSafe());
    if (pLogFile == nullptr) {
        writeToStandardOutput(lines);
        return;
    }
    for (const std::string& sLine : lines) {
        writeLineToFile(sLine);
    }
    std::fflush(pLogFile);
}

void closeLogFile() {
    exchangeLogFile(nullptr);
}

void setLineCountForTest(std::int64_t nLines) {
    const SemaphoreLock lock(semLogFilePtrSafe());
    lNumLines = nLines;
}
