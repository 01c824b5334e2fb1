/// Termination requests without asynchronous signal handlers: SIGPIPE, SIGTERM and SIGINT are
/// blocked in every thread, and one thread receives them synchronously. SIGTERM and SIGINT only set
/// `exitRequested`; SIGPIPE is discarded, so that writing to a closed connection gives EPIPE.
#pragma once

#include <atomic>
#include <csignal>

/// 1 when the process must end, 0 before. Written by the signal thread, read by any.
extern std::atomic<std::sig_atomic_t> exitRequested;

/// Blocks the three signals in the calling thread and starts the signal thread. Call before any
/// other thread is created, so that all inherit the mask. Returns false on failure, which is
/// printed on standard output; if only the thread could not be started, the signals stay blocked.
/// Main thread.
bool setupSignalHandler();

/// Ends the signal thread, whether it is still waiting or has already ended, and restores the
/// calling thread's mask from before `setupSignalHandler`. Signals that arrived meanwhile are
/// discarded, and once exit has been requested further termination signals are ignored. Has no
/// effect when no thread was started. Same thread as `setupSignalHandler`.
void closeSignalHandler();

/// Joins the signal thread if it has ended because exit was requested; has no effect while it is
/// still waiting. Prints nothing and changes no mask. For exits that skip `closeSignalHandler`; may
/// be called more than once. Same thread as `setupSignalHandler`.
void joinEndedSignalThread();

/// Sleeps for `nMillis` milliseconds, or not at all if that is 0 or less. Returns true as soon as
/// exit is requested, or false. Uses no descriptor. Any thread.
[[nodiscard]] bool bWaitForExitRequest(int nMillis);

/// The body of the signal thread; `arg` is the set of signals (`sigset_t*`) it waits for. Returns
/// null.
void* signal_handling_thread(void* arg);
