#include "relayserver/startup/process_end.h"

#include <cstdio>
#include <cstdlib>

#include "relayserver/audio/packet_counts.h"
#include "tests/stubs/logging_stub.h"
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

}  // namespace
