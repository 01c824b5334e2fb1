#include "relayserver/archive_pass.h"

#include <deque>
#include <memory>

#include "base/clock.h"
#include "connserver/logging.h"
#include "relayserver/startup/settings.h"

SccPChunkerCollection ChunkCollector;
CaptionPoster ArchivePostThreader;
std::time_t ttLastArchiveSent = nowSecs();

namespace {

/// Captions handed over in one pass of the loop, but always one source's at least: rendering them
/// takes some tenths of a millisecond.
constexpr std::size_t kCaptionsPerPass = 2000;

/// Sources whose captions are to be handed over in this pass and the next ones.
std::deque<unsigned> sourcesDue;

bool bArchiveFull() {
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

void handOver(SccPChunker& rChunker) {
    if (rChunker.getBufferedSize() > SccPChunker::kMaxSentCaptions) {
        writeToLog(true,
                   "WARNING: Archive: Attempt to send %zu data bytes collected from client %u, "
                   "cancelling\n",
                   rChunker.getBufferedSize(), rChunker.getSourceID());
        rChunker.clear();
        return;
    }
    std::string sPayload = rChunker.getChunkPayloadJson();
    if (bArchiveEnable && !bArchiveFull()) {
        ArchivePostThreader.queuePayload(std::move(sPayload));
    }
}

void handSomeOver() {
    std::size_t nCaptions = 0;
    while (!sourcesDue.empty() && nCaptions < kCaptionsPerPass) {
        // Sources are forgotten only when a pass begins: all that are due are still there.
        SccPChunker& rChunker = *ChunkCollector.getSourceBuffer(sourcesDue.front());
        sourcesDue.pop_front();
        nCaptions += 1 + rChunker.getBufferedSize();
        handOver(rChunker);
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
        pChunker->add(svCaption);
    }
}

void lookAfterArchive(std::time_t ttNow) {
    if (ttNow < ttLastArchiveSent) {
        ttLastArchiveSent = ttNow;  // the clock was set back: it must not hold up the archive
    }
    if (sourcesDue.empty() &&
        std::difftime(ttNow, ttLastArchiveSent) >= nArchiveSendCheckInterval) {
        beginArchivePass(ttNow);
    }
    handSomeOver();
}

bool bArchiveWaits() {
    return !sourcesDue.empty();
}

void resetArchiveForTest() {
    std::destroy_at(&ArchivePostThreader);
    std::construct_at(&ArchivePostThreader);
    ChunkCollector = SccPChunkerCollection();
    sourcesDue.clear();
    ttLastArchiveSent = nowSecs();
}
