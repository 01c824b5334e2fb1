#include "relayserver/settings/command_line.h"

#include <getopt.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr size_t kMaxConfFileLen = 256;

constexpr option kLongOptions[] = {
    {"rport", required_argument, nullptr, 'r'}, {"tport", required_argument, nullptr, 't'},
    {"debug", no_argument, nullptr, 'd'},       {"version", no_argument, nullptr, 'v'},
    {"conf", required_argument, nullptr, 'f'},  {nullptr, 0, nullptr, 0},
};

int nNumberOf(const char* sText) {
    constexpr int kBase = 10;
    const long nNumber = std::strtol(sText, nullptr, kBase);
    return static_cast<int>(std::clamp<long>(nNumber, INT_MIN, INT_MAX));
}

void takeConfFile(CommandLine& rCommandLine, const std::string& sPath) {
    if (sPath.size() > kMaxConfFileLen) {
        std::puts("conf file name invalid - ignoring");
        return;
    }
    rCommandLine.sConfFile = sPath;
}

}  // namespace

CommandLine readCommandLine(int argc, char** argv) {
    CommandLine commandLine;
    int nOption = 0;
    // -s and -l are options of earlier releases; scripts in the field still pass them.
    while ((nOption = getopt_long(argc, argv, "r:s:l:t:f:dv", kLongOptions, nullptr)) != -1) {
        switch (nOption) {
            case 'r':
                commandLine.nFirstRtpPort = nNumberOf(optarg);
                break;
            case 't':
                commandLine.nTcpPort = nNumberOf(optarg);
                break;
            case 'd':
                commandLine.bDebug = true;
                break;
            case 'v':
                commandLine.bVersion = true;
                return commandLine;
            case 'f':
                takeConfFile(commandLine, optarg);
                break;
            default:
                break;
        }
    }
    return commandLine;
}
