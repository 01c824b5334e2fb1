/// Files that carry database changes to a second server: each is written as one transaction into
/// the directory "tmp" and, when finished, moved to its sibling "readyForOutbound", where an
/// outside job picks it up. The relay links this but never calls it; it is kept for the programs
/// that do.
#pragma once

class FileSystemOps;

/// Writes `info` (one or more statements, without the last semicolon) between "BEGIN;" and
/// "COMMIT;" and moves the file on. Does nothing in simple logging, unless
/// `ops->testingRedundancy()`. Failures to write or move are logged. Any thread; cancelling it
/// frees the semaphore.
void redundantInfoToSend(const char* info, FileSystemOps* ops);

/// Closes a redundancy file that is still being written.
void closeRedundancyInfoFile();

/// Posts the semaphore (`sem_t*`) behind `sem`: a clean-up for cancelled threads.
void semCleanupHandler(void* sem);
