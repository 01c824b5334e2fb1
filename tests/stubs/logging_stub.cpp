#include "tests/stubs/logging_stub.h"

#include <algorithm>
#include <cstdarg>
#include <iterator>

#include "base/printable_str.h"
#include "base/string_format.h"
#include "connserver/logging.h"

namespace {

size_t nTimeChecks = 0;
size_t nLinesAtTimeCheck = 0;

}  // namespace

std::vector<std::string>& loggedLines() {
    static std::vector<std::string> lines;
    return lines;
}

size_t nLogged(const std::string& sLine) {
    return static_cast<size_t>(std::count(loggedLines().begin(), loggedLines().end(), sLine));
}

size_t nLoggedContaining(const std::string& sPart) {
    return static_cast<size_t>(std::count_if(
        loggedLines().begin(), loggedLines().end(),
        [&](const std::string& sLine) { return sLine.find(sPart) != std::string::npos; }));
}

std::vector<std::string> partsInLogOrder(const std::vector<std::string>& parts) {
    std::vector<std::string> found;
    for (const std::string& sLine : loggedLines()) {
        std::copy_if(parts.begin(), parts.end(), std::back_inserter(found),
                     [&](const std::string& sPart) { return sLine.find(sPart) != sLine.npos; });
    }
    return found;
}

size_t nLoggingTimeChecks() {
    return nTimeChecks;
}

size_t nLinesBeforeLoggingTimeCheck() {
    return nLinesAtTimeCheck;
}

void writeToLog(bool /*timePrefix*/, const char* format, ...) {
    va_list args;
    va_start(args, format);
    loggedLines().push_back(vstring_format(format, args));
    va_end(args);
}

bool setupLogging(bool /*bSimpleOnly*/, std::string /*sLogDirIn*/) {
    return true;
}

void loggingTimeCheck() {
    ++nTimeChecks;
    nLinesAtTimeCheck = loggedLines().size();
}

void closeLog() {}

bool bDrainLog(int /*nMaxMillis*/) {
    return true;
}

void printchars(const char* bytes, int len) {
    writeToLog(false, "%s", printableStr(bytes, len, asciiAndDecimal).c_str());
}

void printrawchars(const char* bytes, int len) {
    writeToLog(false, "%s", printableStr(bytes, len, allHex).c_str());
}
