#include "relayserver/startup/process_end.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>

#include "connserver/logging.h"
#include "relayserver/archive_pass.h"
#include "relayserver/audio/packet_counts.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/archive_endpoint.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/loopback.h"

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

/// The ending process has a poster, which works in that process.
class ProcessEndWithPoster : public ProcessEnd {
  protected:
    ProcessEndWithPoster() { EXPECT_EQ(0, pipe(_aPipe)); }
    ~ProcessEndWithPoster() override {
        close(_aPipe[0]);
        close(_aPipe[1]);
    }

    /// Lets a process do `begin` and then end by `end`, with `nStatus`, in well under a second.
    void expectEndAtOnce(int nStatus, const std::function<void()>& begin,
                         const std::function<void()>& end) {
        using std::chrono::milliseconds;
        auto shortest = std::chrono::steady_clock::duration::max();
        for (int i = 0; i < 5 && shortest > milliseconds(500); ++i) {  // the machine may be slow
            EXPECT_EXIT(
                {
                    begin();
                    tellTime();
                    end();
                },
                ExitedWithCode(nStatus), "^$");
            shortest = std::min(shortest, sinceTold());
        }
        EXPECT_LT(shortest, milliseconds(500));
    }
    static void post(const std::string& sURL) {
        ArchivePostThreader.setDestination(sURL);
        ArchivePostThreader.queuePayload("{}");
    }
    /// In a process that is to end: it ends otherwise when this fails.
    static void require(bool bCondition) {
        if (!bCondition) {
            std::abort();
        }
    }
    static void requireStatus(const std::string& sStatus) {
        require(bComesTrue([&] { return ArchivePostThreader.getLastStatusCode() == sStatus; }));
    }

  private:
    /// Tells the test from the ending process what time it is.
    void tellTime() const {
        const auto tNow = std::chrono::steady_clock::now();
        require(write(_aPipe[1], &tNow, sizeof tNow) == sizeof tNow);
    }
    [[nodiscard]] std::chrono::steady_clock::duration sinceTold() const {
        const auto tNow = std::chrono::steady_clock::now();
        auto tTold = tNow;
        if (!bWaitReadable(_aPipe[0]) || read(_aPipe[0], &tTold, sizeof tTold) == -1) {
            return std::chrono::steady_clock::duration::max();
        }
        return tNow - tTold;
    }

    int _aPipe[2] = {-1, -1};
};

TEST_F(ProcessEndWithPoster, IsImmediateWhenThePosterIsIdle) {
    ArchiveEndpoint endpoint;
    const auto postOnce = [&] {
        post(endpoint.sURL());
        require(endpoint.sNextBody() == "{}");
        requireStatus("HTTP OK");
    };
    expectEndAtOnce(3, postOnce, [] { quitProcess(3); });
}

TEST_F(ProcessEndWithPoster, DoesNotWaitForAnAnswerThatNeverComes) {
    ArchiveEndpoint endpoint;
    const auto beginPost = [&] {
        post(endpoint.sURL());
        require(endpoint.nextRequest().sBody == "{}");
    };
    expectEndAtOnce(4, beginPost, [] { quitProcess(4); });
}

TEST_F(ProcessEndWithPoster, TheOrderlyEndDoesNotWaitEither) {
    ArchiveEndpoint endpoint;
    const auto beginPost = [&] {
        post(endpoint.sURL());
        require(endpoint.nextRequest().sBody == "{}");
    };
    expectEndAtOnce(0, beginPost, [] { shutDown(); });
}

TEST_F(ProcessEndWithPoster, DoesNotWaitForTheNextTry) {
    const RefusingPort port;
    const auto failOnce = [&] {
        post(port.sURL());
        requireStatus("Can't connect to server");
    };
    expectEndAtOnce(5, failOnce, [] { quitProcess(5); });
}

TEST_F(ProcessEndWithPoster, CleansUpWhenThePosterHasEnded) {
    EXPECT_EXIT(
        {
            showLogAtExit();
            post("");
            requireStatus("Can't resolve URL");
            ArchivePostThreader._interruptWorkThread();
            writeToLog(true, "the clean-ups ran\n");
            quitProcess(6);
        },
        ExitedWithCode(6), "^the clean-ups ran\n$");
}

TEST_F(ProcessEndWithPoster, CleansUpWhenThePosterWasNeverNeeded) {
    EXPECT_EXIT(
        {
            showLogAtExit();
            writeToLog(true, "the clean-ups ran\n");
            quitProcess(7);
        },
        ExitedWithCode(7), "^the clean-ups ran\n$");
}

}  // namespace
