#include "relayserver/process/process_end.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "connserver/logging.h"
#include "relayserver/archive/archive_pass.h"
#include "relayserver/audio/packet_counts.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/archive/archive_endpoint.h"
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

    enum class CleanUps { kAllowed, kRefused };

    /// A process that does `begin` and then ends by `end` has `nStatus`, in well under a second;
    /// possibly without the clean-ups of `exit`, which wait for the worker.
    void expectEndAtOnce(int nStatus, const std::function<void()>& begin,
                         const std::function<void()>& end, CleanUps cleanUps = CleanUps::kAllowed) {
        bool bAtOnce = false;
        for (int i = 0; i < 5 && !bAtOnce; ++i) {  // the machine may be slow
            EXPECT_EXIT(
                {
                    begin();
                    tellTime();
                    end();
                },
                ExitedWithCode(nStatus), "^$");
            const bool bQuick = sinceTold() < std::chrono::milliseconds(500);
            bAtOnce = (!bToldOfCleanUps() || cleanUps == CleanUps::kAllowed) && bQuick;
        }
        EXPECT_TRUE(bAtOnce);
    }
    static void post(const std::string& sURL) {
        ArchivePostThreader.setDestination(sURL);
        ArchivePostThreader.queuePayload("{}");
    }
    /// Posts, and comes back when the worker has been waiting for the answer for a while.
    static void postInVain(ArchiveEndpoint& rEndpoint) {
        post(rEndpoint.sURL());
        require(rEndpoint.nextRequest().sBody == "{}");
        constexpr int kLooks = 20;
        std::string sLast;
        int nUnchanged = 0;
        require(bComesTrue([&] {
            const std::string sNow = sOtherThread();
            nUnchanged = sNow == sLast && sNow.starts_with("State:\tS") ? nUnchanged + 1 : 0;
            sLast = sNow;
            return nUnchanged >= kLooks;
        }));
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
    /// Whether this process's other thread sleeps and how often it has begun to.
    static std::string sOtherThread() {
        std::string sFound;
        for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
            if (task.path().filename() == std::to_string(gettid())) {
                continue;
            }
            std::ifstream status(task.path() / "status");
            for (std::string sLine; std::getline(status, sLine);) {
                if (sLine.starts_with("State:") || sLine.starts_with("voluntary_ctxt")) {
                    sFound += sLine;
                }
            }
        }
        return sFound;
    }
    /// Tells the test from the ending process what time it is, and later of clean-ups.
    void tellTime() const {
        static int fdTell = -1;
        fdTell = _aPipe[1];
        std::atexit([] { require(write(fdTell, "c", 1) == 1); });
        const auto tNow = std::chrono::steady_clock::now();
        require(write(fdTell, &tNow, sizeof tNow) == sizeof tNow);
    }
    [[nodiscard]] bool bToldOfCleanUps() const {
        char chTold = 0;
        pollfd pfd{_aPipe[0], POLLIN, 0};
        return poll(&pfd, 1, 0) == 1 && read(_aPipe[0], &chTold, 1) == 1;
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
    expectEndAtOnce(
        4, [&] { postInVain(endpoint); }, [] { quitProcess(4); }, CleanUps::kRefused);
}

TEST_F(ProcessEndWithPoster, TheOrderlyEndDoesNotWaitEither) {
    ArchiveEndpoint endpoint;
    expectEndAtOnce(
        0, [&] { postInVain(endpoint); }, [] { shutDown(); }, CleanUps::kRefused);
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
