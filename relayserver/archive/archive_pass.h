/// The archive: copies of the captions that stations send, kept for each source and periodically
/// handed to the poster as JSON. Main thread only.
#pragma once

#include <cstddef>
#include <ctime>
#include <string_view>

#include "poster/Poster.h"
#include "relayserver/archive/SccPChunkerCollection.h"

/// Seconds between two checks of the archive.
constexpr int nArchiveSendCheckInterval = 15;

/// While the poster has more than this queued, captions that become due are lost. The limit in
/// bytes is far above what that many ordinary payloads take: only a flood reaches it first.
constexpr std::size_t kMaxArchiveBacklogPayloads = 9999;
constexpr std::size_t kMaxArchiveBacklogBytes = std::size_t{1} << 30;

/// The captions of all sources that were not handed to the poster yet.
extern SccPChunkerCollection ChunkCollector;

/// Posts the captions handed over to it.
extern CaptionPoster ArchivePostThreader;

/// When the archive was last checked.
extern std::time_t ttLastArchiveSent;

/// Configures the poster from the settings. Call once, after they are read.
void openArchive();

/// Keeps a copy of a caption from source `nSourceID` (byte pairs, possibly none) if the archive is
/// enabled. May wait a microsecond, so that each caption of the source has a different time.
void archiveCaption(unsigned nSourceID, std::string_view svCaption);

/// Every 15 s reports problems with posting and begins to hand over the captions that are old
/// enough. Call in each pass: renders a bounded part at a time, so that neither many sources nor a
/// single large one delays the event loop.
void lookAfterArchive(std::time_t ttNow);

/// Whether there is more to hand over: the event loop must not sleep then.
[[nodiscard]] bool bArchiveWaits();

/// Back to the state at process start.
void resetArchiveForTest();
