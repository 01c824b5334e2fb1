#include "tests/stubs/logging_stub.h"

#include <algorithm>
#include <cstdarg>

#include "base/printable_str.h"
#include "base/string_format.h"
#include "connserver/logging.h"

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

void writeToLog(bool /*timePrefix*/, const char* format, ...) {
    va_list args;
    va_start(args, format);
    loggedLines().push_back(vstring_format(format, args));
    va_end(args);
}

bool setupLogging(bool /*bSimpleOnly*/, std::string /*sLogDirIn*/) {
    return true;
}

void loggingTimeCheck() {}

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
