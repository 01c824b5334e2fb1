/// What the command line decides.
#pragma once

#include <string>

struct CommandLine {
    /// Show the version and end.
    bool bVersion = false;
    /// Log to standard output instead of a file.
    bool bDebug = false;
    /// First UDP audio port and TCP message port; 0 leaves them to the configuration.
    int nFirstRtpPort = 0;
    int nTcpPort = 0;
    std::string sConfFile = "tessel_rs.conf";
};

/// Reads the options; numbers out of an int's range become its nearest end. Unknown options are
/// reported on standard error by getopt and skipped.
[[nodiscard]] CommandLine readCommandLine(int argc, char** argv);
