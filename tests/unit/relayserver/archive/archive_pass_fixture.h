/// What every test of the archive's pass starts from: an archive that is enabled, and sources that
/// caption into it.
#pragma once

#include <cstddef>
#include <ctime>
#include <string>

#include "base/clock.h"
#include "base/string_format.h"
#include "relayserver/archive/archive_pass.h"
#include "relayserver/settings/settings.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/archive/archive_endpoint.h"
#include "tests/unit/relayserver/engine_fixture.h"

inline constexpr const char* kBacklogFull =
    "WARNING: CCArchive local backlog is full, we are currently dropping data\n";

class ArchivePass : public EngineTest {
  protected:
    ArchivePass() {
        bArchiveEnable = true;
        nArchiveInterval = 1;
    }

    static void lookAfter(std::time_t nSecs) {
        advanceClockForTest(nSecs);
        lookAfterArchive(nowSecs());
    }

    /// Runs passes, with the clock stopped, until all that is due is handed over.
    static int nPassesUntilHandedOver() {
        int nPasses = 0;
        for (; bArchiveWaits() && nPasses < 1000; ++nPasses) {
            lookAfter(0);
        }
        return nPasses;
    }

    /// Lets a source caption `nCaptions` times, a microsecond apart.
    static void caption(unsigned nID, int nCaptions = 1) {
        for (int i = 0; i < nCaptions; ++i) {
            archiveCaption(nID, "ab");
            advanceClockForTest(std::chrono::microseconds(1));
        }
    }
    static std::size_t nBuffered(unsigned nID) {
        return ChunkCollector.getSourceBuffer(nID)->getBufferedSize();
    }

    /// Lets the worker wait for its first payload's time, so that all others stay queued.
    static void holdWorker() {
        ArchivePostThreader.queuePayload("", 1000000000);
        ASSERT_TRUE(bComesTrue([] { return nQueued() == 0; }));
    }
    static void queue(int nPayloads) {
        for (int i = 0; i < nPayloads; ++i) {
            ArchivePostThreader.queuePayload("x");
        }
    }
    static std::size_t nQueued() { return ArchivePostThreader.getPayloadQueueSize(); }

    static void expectStatus(const std::string& sStatus) {
        EXPECT_TRUE(bComesTrue([&] { return ArchivePostThreader.getLastStatusCode() == sStatus; }))
            << ArchivePostThreader.getLastStatusCode();
    }
    static std::string sFeed(unsigned nID) { return string_format("\"feedID\" : \"%u\"", nID); }
};
