/// Redirects this process's standard output to a file that can be read while it grows (GoogleTest's
/// own capture can be read only at its end). The destructor undoes it.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/unit/base/waiting.h"

/// The content of a file; empty when there is none.
inline std::string sFileContent(const std::string& sPath) {
    std::ifstream file(sPath, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/// How often `sPart` occurs in `sText`.
inline int nOccurrences(const std::string& sText, const std::string& sPart) {
    int nFound = 0;
    for (auto n = sText.find(sPart); n != std::string::npos; n = sText.find(sPart, n + 1)) {
        ++nFound;
    }
    return nFound;
}

class StdoutCapture {
  public:
    StdoutCapture() {
        std::fflush(stdout);
        nOriginal_ = dup(STDOUT_FILENO);
        char achPath[] = "/tmp/stdout_captureXXXXXX";
        nFile_ = mkstemp(achPath);
        unlink(achPath);  // Nothing is left behind, even by a process that exits within a test.
        dup2(nFile_, STDOUT_FILENO);
    }
    ~StdoutCapture() {
        std::fflush(stdout);
        dup2(nOriginal_, STDOUT_FILENO);
        close(nOriginal_);
        close(nFile_);
    }
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;

    /// All that has been printed so far.
    std::string sText() const {
        std::fflush(stdout);
        return sUnflushedText();
    }

    /// What has reached the file without a flush by this test.
    std::string sUnflushedText() const {
        std::string sText;
        char achBuffer[4096];
        ssize_t nRead = 0;
        while ((nRead = pread(nFile_, achBuffer, sizeof achBuffer,
                              static_cast<off_t>(sText.size()))) > 0) {
            sText.append(achBuffer, static_cast<std::size_t>(nRead));
        }
        return sText;
    }

  private:
    int nOriginal_ = -1;
    int nFile_ = -1;
};
