/// The options of the command line.
#pragma once

#include <string>

/// What the options say.
struct CommandLine {
    /// Print the version and exit.
    bool bVersion = false;
    /// Log to standard output instead of a file.
    bool bDebug = false;
    /// First UDP audio port and TCP message port; 0 leaves them to the configuration.
    int nFirstRtpPort = 0;
    int nTcpPort = 0;
    /// The path of the configuration file.
    std::string sConfFile = "tessel_rs.conf";
};

/// Reads the options; numbers outside the range of int are clamped to it. Unknown options are
/// reported on standard error by getopt and skipped.
[[nodiscard]] CommandLine readCommandLine(int argc, char** argv);
