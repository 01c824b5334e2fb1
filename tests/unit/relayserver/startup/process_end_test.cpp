#include "relayserver/startup/process_end.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "connserver/logging.h"
#include "relayserver/archive_pass.h"
#include "relayserver/audio/packet_counts.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/archive_endpoint.h"
#include "tests/unit/relayserver/engine_fixture.h"

namespace {

using testing::ExitedWithCode;

class ProcessEnd : public EngineTest {
  protected:
    /// Lets the ending process show what it has logged.
    static void showLogAtExit() {
        std::atexit([] {
            for (const std::string& sLine : loggedLines()) {
                std::fputs(sLine.c_str(), stderr);
            }
        });
    }
};

TEST_F(ProcessEnd, QuittingEndsWithItsStatus) {
    EXPECT_EXIT(quitProcess(1), ExitedWithCode(1), "");
    EXPECT_EXIT(quitProcess(0), ExitedWithCode(0), "");
}

TEST_F(ProcessEnd, TheOrderlyEndIsLoggedAndHasStatusZero) {
    EXPECT_EXIT(
        {
            showLogAtExit();
            nAudioPacketsRcvd = 4000000000U;
            shutDown();
        },
        ExitedWithCode(0), "^4000000000 Audio packets forwarded\\.\nCleaning up main method\n$");
}

/// The ending process has a poster. What it begins with runs in that process, and the test measures
/// from there how long the end took.
class ProcessEndWithPoster : public ProcessEnd {
  protected:
    ProcessEndWithPoster() { EXPECT_EQ(0, pipe(_aPipe)); }
    ~ProcessEndWithPoster() override {
        close(_aPipe[0]);
        close(_aPipe[1]);
    }

    /// For the ending process, as the last thing before it ends.
    void beginEnd() const {
        const auto tBegin = std::chrono::steady_clock::now();
        (void)!write(_aPipe[1], &tBegin, sizeof tBegin);
    }
    /// For the test, once the process has ended.
    void expectEndedAtOnce() const {
        const auto tEnd = std::chrono::steady_clock::now();
        auto tBegin = tEnd;
        ASSERT_EQ(static_cast<ssize_t>(sizeof tBegin), read(_aPipe[0], &tBegin, sizeof tBegin));
        EXPECT_LT(tEnd - tBegin, std::chrono::milliseconds(500));
    }
    static void post(const std::string& sURL) {
        ArchivePostThreader.setDestination(sURL);
        ArchivePostThreader.queuePayload("{}");
    }
    static void waitForStatus(const std::string& sStatus) {
        if (!bComesTrue([&] { return ArchivePostThreader.getLastStatusCode() == sStatus; })) {
            std::abort();
        }
    }

  private:
    int _aPipe[2] = {-1, -1};
};

TEST_F(ProcessEndWithPoster, IsImmediateWhenThePosterIsIdle) {
    ArchiveEndpoint endpoint;
    EXPECT_EXIT(
        {
            post(endpoint.sURL());
            (void)endpoint.sNextBody();
            waitForStatus("HTTP OK");
            beginEnd();
            quitProcess(3);
        },
        ExitedWithCode(3), "^$");
    expectEndedAtOnce();
}

TEST_F(ProcessEndWithPoster, DoesNotWaitForAnAnswerThatNeverComes) {
    ArchiveEndpoint endpoint;
    EXPECT_EXIT(
        {
            showLogAtExit();
            post(endpoint.sURL());
            if (endpoint.nextRequest().sBody != "{}") {
                std::abort();
            }
            writeToLog(true, "the worker was waited for\n");
            beginEnd();
            quitProcess(4);
        },
        ExitedWithCode(4), "^$");
    expectEndedAtOnce();
}

TEST_F(ProcessEndWithPoster, TheOrderlyEndDoesNotWaitEither) {
    ArchiveEndpoint endpoint;
    EXPECT_EXIT(
        {
            post(endpoint.sURL());
            (void)endpoint.nextRequest();
            beginEnd();
            shutDown();
        },
        ExitedWithCode(0), "^$");
    expectEndedAtOnce();
}

TEST_F(ProcessEndWithPoster, DoesNotWaitForTheNextTry) {
    const RefusingPort port;
    EXPECT_EXIT(
        {
            post(port.sURL());
            waitForStatus("Can't connect to server");
            beginEnd();
            quitProcess(5);
        },
        ExitedWithCode(5), "^$");
    expectEndedAtOnce();
}

TEST_F(ProcessEndWithPoster, IsOrderlyWhenThePosterHasEnded) {
    EXPECT_EXIT(
        {
            showLogAtExit();
            post("");
            waitForStatus("Can't resolve URL");
            ArchivePostThreader._interruptWorkThread();
            writeToLog(true, "the clean-ups ran\n");
            quitProcess(6);
        },
        ExitedWithCode(6), "^the clean-ups ran\n$");
}

TEST_F(ProcessEndWithPoster, IsOrderlyWhenThePosterWasNeverNeeded) {
    EXPECT_EXIT(
        {
            showLogAtExit();
            writeToLog(true, "the clean-ups ran\n");
            quitProcess(7);
        },
        ExitedWithCode(7), "^the clean-ups ran\n$");
}

}  // namespace
