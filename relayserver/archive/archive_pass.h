/// The archive: copies of the captions that stations send, kept for each source, and from time to
/// time handed to the poster as JSON. Main thread only.
#pragma once

#include <cstddef>
#include <ctime>
#include <string_view>

#include "poster/Poster.h"
#include "relayserver/archive/SccPChunkerCollection.h"

/// How often the archive is looked after (seconds).
constexpr int nArchiveSendCheckInterval = 15;

/// While the poster has more than this waiting, captions that become due are lost. The bytes are
/// far above what so many payloads of captioners take: a flood meets them first.
constexpr std::size_t kMaxArchiveBacklogPayloads = 9999;
constexpr std::size_t kMaxArchiveBacklogBytes = std::size_t{1} << 30;

/// What sources have captioned and what was not handed to the poster yet.
extern SccPChunkerCollection ChunkCollector;

/// Posts what was handed over.
extern CaptionPoster ArchivePostThreader;

/// When the archive was last looked after.
extern std::time_t ttLastArchiveSent;

/// Tells the poster what the settings say. Once, after they are read.
void openArchive();

/// Keeps a copy of what source `nSourceID` captions: byte pairs, maybe none. Only if the archive is
/// enabled. May take a microsecond, until the clock shows another time than for the one before.
void archiveCaption(unsigned nSourceID, std::string_view svCaption);

/// Every 15 s reports what is wrong with posting and begins to hand over the captions that are old
/// enough. Called in each pass of the loop: renders a bounded part at a time, so that neither many
/// sources nor one that has much hold up the loop.
void lookAfterArchive(std::time_t ttNow);

/// Whether there is more to hand over, so that the loop must not sleep.
[[nodiscard]] bool bArchiveWaits();

/// Back to the state at process start.
void resetArchiveForTest();
