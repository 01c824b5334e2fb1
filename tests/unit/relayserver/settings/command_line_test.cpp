#include "relayserver/settings/command_line.h"

#include <getopt.h>
#include <gtest/gtest.h>

#include <vector>

namespace {

CommandLine readArguments(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(), "relayserver");
    std::vector<char*> argv;
    for (std::string& rArgument : arguments) {
        argv.push_back(rArgument.data());
    }
    argv.push_back(nullptr);
    optind = 0;  // getopt starts afresh
    return readCommandLine(static_cast<int>(arguments.size()), argv.data());
}

TEST(CommandLine, WithoutOptionsEverythingIsLeftToTheConfiguration) {
    const CommandLine commandLine = readArguments({});
    EXPECT_FALSE(commandLine.bVersion);
    EXPECT_FALSE(commandLine.bDebug);
    EXPECT_EQ(0, commandLine.nFirstRtpPort);
    EXPECT_EQ(0, commandLine.nTcpPort);
    EXPECT_EQ("tessel_rs.conf", commandLine.sConfFile);
}

TEST(CommandLine, TakesShortOptions) {
    const CommandLine commandLine =
        readArguments({"-r", "7000", "-t", "9000", "-d", "-f", "other.conf"});
    EXPECT_EQ(7000, commandLine.nFirstRtpPort);
    EXPECT_EQ(9000, commandLine.nTcpPort);
    EXPECT_TRUE(commandLine.bDebug);
    EXPECT_EQ("other.conf", commandLine.sConfFile);
    EXPECT_FALSE(commandLine.bVersion);
}

TEST(CommandLine, TakesLongOptions) {
    const CommandLine commandLine =
        readArguments({"--rport", "7000", "--tport=9000", "--debug", "--conf", "other.conf"});
    EXPECT_EQ(7000, commandLine.nFirstRtpPort);
    EXPECT_EQ(9000, commandLine.nTcpPort);
    EXPECT_TRUE(commandLine.bDebug);
    EXPECT_EQ("other.conf", commandLine.sConfFile);
}

TEST(CommandLine, VersionEndsTheReadingAtOnce) {
    const CommandLine commandLine = readArguments({"-t", "9000", "-v", "-r", "7000"});
    EXPECT_TRUE(commandLine.bVersion);
    EXPECT_EQ(0, commandLine.nFirstRtpPort);
    EXPECT_TRUE(readArguments({"--version"}).bVersion);
}

TEST(CommandLine, OldOptionsTakeAnArgumentAndDoNothing) {
    const CommandLine commandLine = readArguments({"-s", "-d", "-l", "-v", "-t", "9000"});
    EXPECT_FALSE(commandLine.bDebug) << "it is the argument of -s";
    EXPECT_FALSE(commandLine.bVersion) << "it is the argument of -l";
    EXPECT_EQ(9000, commandLine.nTcpPort);
}

TEST(CommandLine, NumbersAreDecimalAndReadAsFarAsTheyGo) {
    EXPECT_EQ(9000, readArguments({"-t", "9000x"}).nTcpPort);
    EXPECT_EQ(0, readArguments({"-t", "abc"}).nTcpPort);
    EXPECT_EQ(0, readArguments({"-t", "0x2400"}).nTcpPort);
    EXPECT_EQ(9000, readArguments({"-t", "009000"}).nTcpPort);
    EXPECT_EQ(-5, readArguments({"-t", "-5"}).nTcpPort);
}

TEST(CommandLine, NumbersOutOfRangeBecomeTheNearestInt) {
    EXPECT_EQ(2147483647, readArguments({"-t", "2147483648"}).nTcpPort);
    EXPECT_EQ(2147483647, readArguments({"-t", "99999999999999999999999"}).nTcpPort);
    EXPECT_EQ(-2147483647 - 1, readArguments({"-r", "-99999999999"}).nFirstRtpPort);
}

TEST(CommandLine, AConfPathOf256CharactersIsTaken) {
    const std::string sPath(256, 'c');
    testing::internal::CaptureStdout();
    EXPECT_EQ(sPath, readArguments({"-f", sPath}).sConfFile);
    EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST(CommandLine, ALongerConfPathIsRefusedAndTheDefaultStays) {
    testing::internal::CaptureStdout();
    EXPECT_EQ("tessel_rs.conf", readArguments({"--conf", std::string(257, 'c')}).sConfFile);
    EXPECT_EQ("conf file name invalid - ignoring\n", testing::internal::GetCapturedStdout());
}

TEST(CommandLine, UnknownOptionsAreSkipped) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(9000, readArguments({"-x", "--nonsense", "-t", "9000"}).nTcpPort);
    EXPECT_NE("", testing::internal::GetCapturedStderr());
}

TEST(CommandLine, TheLastOfEqualOptionsCounts) {
    EXPECT_EQ(9001, readArguments({"-t", "9000", "-t", "9001"}).nTcpPort);
}

}  // namespace
