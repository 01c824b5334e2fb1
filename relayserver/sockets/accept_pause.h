/// Keeps the event loop from spinning while the process has no descriptor left for a new
/// connection: the listener stays readable then and would be reported in every pass.
/// Main thread only.
#pragma once

/// Stops watching `fdListener` after `accept` failed because no descriptors were left. True for the
/// first failure of this listener since a connection was last accepted: only that one is worth a
/// line in the log.
[[nodiscard]] bool bPauseAccepting(int fdListener);

/// A connection was accepted: descriptors are available again.
void noteAccepted();

/// Watches the paused listeners again, at most once a second. Call in each pass.
void resumeAccepting();

/// Back to the state at process start.
void resetAcceptPauseForTest();
