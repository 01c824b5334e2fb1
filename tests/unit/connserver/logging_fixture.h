/// A logging directory with a real marker file, and standard output captured.
#pragma once

#include <gtest/gtest.h>

#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/clock.h"
#include "connserver/logging.h"
#include "tests/unit/connserver/stdout_capture.h"

class LoggingFixture : public testing::Test {
  protected:
    LoggingFixture() {
        char achDirectory[] = "/tmp/logging_testXXXXXX";
        sDirectory_ = std::string(mkdtemp(achDirectory)) + "/";
        std::filesystem::create_directory(sDirectory_ + "sys");
        setMarker("first.log\n");
    }
    ~LoggingFixture() override {
        closeLog();
        resetClockForTest();
        std::filesystem::remove_all(sDirectory_);
    }

    std::string sMarkerPath() const { return sDirectory_ + "sys/currentlyusedlogfile.name"; }
    void setMarker(const std::string& sContent) const {
        std::ofstream(sMarkerPath(), std::ios::binary) << sContent;
    }
    std::string sLog(const std::string& sName = "first.log") const {
        return sFileContent(sDirectory_ + sName);
    }
    /// The log after all queued lines have been written.
    std::string sDrainedLog(const std::string& sName = "first.log") const {
        EXPECT_TRUE(bDrainLog(10'000));
        return sLog(sName);
    }
    /// Puts the clock to a local time of the `nDay`th of March 2025.
    static void setLocalTime(int nHour, int nMinute, int nSecond, int nDay = 3) {
        std::tm local{};
        local.tm_year = 125;
        local.tm_mon = 2;
        local.tm_mday = nDay;
        local.tm_hour = nHour;
        local.tm_min = nMinute;
        local.tm_sec = nSecond;
        local.tm_isdst = -1;
        setClockForTest(std::mktime(&local));
    }

    std::string sDirectory_;
    StdoutCapture stdout_;
};
