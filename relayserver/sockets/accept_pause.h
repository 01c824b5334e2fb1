/// Keeps the loop quiet while the process has no descriptor left for a new connection: the listener
/// stays readable then, and would be offered in every pass. Main thread only.
#pragma once

/// Stops watching `fdListener` after `accept` failed for want of descriptors. True for its
/// first time since a connection was last accepted: that one is worth a line in the log.
bool bPauseAccepting(int fdListener);

/// A connection was accepted: the want is over.
void noteAccepted();

/// Watches the paused listeners again, at most once a second. Call in each pass.
void resumeAccepting();

/// Forgets what is paused.
void resetAcceptPauseForTest();
