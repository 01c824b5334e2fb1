/// Files that carry database changes to a second server: each is written as one transaction in the
/// directory "tmp" and, when finished, moved to its sibling "readyForOutbound", where an external
/// job picks it up. The relay links this but never calls it; it is kept for programs that do.
#pragma once

class FileSystemOps;

/// Writes `info` (one or more statements, without the last semicolon) between "BEGIN;" and
/// "COMMIT;" to a new file and moves that to its destination. Does nothing in simple logging,
/// unless `ops->testingRedundancy()`. Failures to write or move are logged. Any thread; the
/// semaphore is released even if the thread is cancelled.
void redundantInfoToSend(const char* info, FileSystemOps* ops);

/// Closes a redundancy file that is still open, if any. Any thread.
void closeRedundancyInfoFile();

/// Posts the semaphore (`sem_t*`) at `sem`: a clean-up handler for cancelled threads.
void semCleanupHandler(void* sem);
