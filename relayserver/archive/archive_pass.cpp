#include "relayserver/archive/archive_pass.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <optional>

#include "base/clock.h"
#include "connserver/logging.h"
#include "relayserver/settings/settings.h"

SccPChunkerCollection ChunkCollector;
CaptionPoster ArchivePostThreader;
std::time_t ttLastArchiveSent = nowSecs();

namespace {

/// The rendering budget of one pass, in the unit of `SccPRendering`: a few tenths of a millisecond.
/// Each source has a fixed cost as well.
constexpr std::size_t kBudgetPerPass = 100000;
constexpr std::size_t kSourceCost = 1000;

/// Sources whose captions will be handed over in this pass and the next ones.
std::deque<unsigned> sourcesDue;
/// The unfinished rendering of the source before them, if any.
std::optional<SccPRendering> rendering;

[[nodiscard]] bool bArchiveFull() {
    return ArchivePostThreader.getPayloadQueueSize() > kMaxArchiveBacklogPayloads ||
           ArchivePostThreader.getPayloadQueueBytes() > kMaxArchiveBacklogBytes;
}

void reportPosting() {
    const std::string sStatus = ArchivePostThreader.getLastStatusCode();
    if (bArchiveEnable && sStatus.find("HTTP OK") == std::string::npos &&
        sStatus.find("Idle") == std::string::npos) {
        writeToLog(true, "WARNING: Archive posting issue - %s\n", sStatus.c_str());
    }
}

void beginArchivePass(std::time_t ttNow) {
    reportPosting();
    for (const SccPChunker* pChunker : ChunkCollector.getBuffersOlderThan(nArchiveInterval)) {
        sourcesDue.push_back(pChunker->getSourceID());
    }
    if (bArchiveFull()) {
        writeToLog(true,
                   "WARNING: CCArchive local backlog is full, we are currently dropping data\n");
    }
    ttLastArchiveSent = ttNow;
}

void discardFlood(SccPChunker& rChunker) {
    writeToLog(true,
               "WARNING: Archive: Attempt to send %zu data bytes collected from client %u, "
               "cancelling\n",
               rChunker.getBufferedSize(), rChunker.getSourceID());
    rChunker.clear();
}

void beginNextSource(std::size_t& rnBudget) {
    // Sources are forgotten only when an archive pass begins, so all that are due still exist.
    SccPChunker& rChunker = *ChunkCollector.getSourceBuffer(sourcesDue.front());
    sourcesDue.pop_front();
    if (rChunker.getBufferedSize() > SccPChunker::kMaxSentCaptions) {
        discardFlood(rChunker);
        rnBudget = 0;  // freeing that many takes long enough
        return;
    }
    rendering.emplace(rChunker.takeChunk());
    rnBudget -= std::min(rnBudget, kSourceCost);
}

void queueRendered() {
    if (bArchiveEnable && !bArchiveFull()) {
        ArchivePostThreader.queuePayload(rendering->sTakeText());
    }
    rendering.reset();
}

void renderWithinBudget() {
    std::size_t nBudget = kBudgetPerPass;
    while (nBudget > 0 && bArchiveWaits()) {
        if (!rendering) {
            beginNextSource(nBudget);
        } else if (rendering->bWriteOn(nBudget)) {
            queueRendered();
        }
    }
}

/// A source keeps only one caption per microsecond, but captions that arrive together are handled
/// faster than that: waits until the clock has advanced. The wait is bounded, in case the clock
/// does not advance.
void waitForUnusedTime(const SccPChunker& chunker) {
    constexpr int kMaxClockReads = 1000;
    for (int i = 0; i < kMaxClockReads && chunker.bHolds(ptNow()); ++i) {
    }
}

}  // namespace

void openArchive() {
    if (!bArchiveEnable) {
        return;
    }
    ArchivePostThreader.setDestination(sArchiveEndpoint);
    if (!sArchiveUsername.empty()) {
        ArchivePostThreader.setDigestAuth(sArchiveUsername, sArchivePassword);
    }
    if (!sArchiveContentType.empty()) {
        ArchivePostThreader.setContentType(sArchiveContentType);
    }
    ArchivePostThreader.appendSeqToURI(bArchiveAppendSeq);
}

void archiveCaption(unsigned nSourceID, std::string_view svCaption) {
    if (!bArchiveEnable) {
        return;
    }
    SccPChunker* pChunker = ChunkCollector.getSourceBuffer(nSourceID);
    if (pChunker == nullptr) {
        pChunker = ChunkCollector.createNewSource(nSourceID);
        writeToLog(true, "Newly collecting caption feedback from source %u for archive\n",
                   nSourceID);
    }
    if (pChunker == nullptr) {
        writeToLog(true, "Warning: failed to create or add to an SCC archive ChunkCollector\n");
        return;
    }
    if (!svCaption.empty()) {
        waitForUnusedTime(*pChunker);
        pChunker->add(svCaption);
    }
}

void lookAfterArchive(std::time_t ttNow) {
    if (ttNow < ttLastArchiveSent) {
        ttLastArchiveSent = ttNow;  // the clock was set back: that must not delay the archive
    }
    if (!bArchiveWaits() && std::difftime(ttNow, ttLastArchiveSent) >= nArchiveSendCheckInterval) {
        beginArchivePass(ttNow);
    }
    renderWithinBudget();
}

bool bArchiveWaits() {
    return rendering.has_value() || !sourcesDue.empty();
}

void resetArchiveForTest() {
    std::destroy_at(&ArchivePostThreader);
    std::construct_at(&ArchivePostThreader);
    ChunkCollector = SccPChunkerCollection();
    sourcesDue.clear();
    rendering.reset();
    ttLastArchiveSent = nowSecs();
}
