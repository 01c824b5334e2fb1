/// Termination requests without code in asynchronous signal handlers: SIGPIPE, SIGTERM and SIGINT
/// are blocked in every thread, and one thread receives them in turn. SIGTERM and SIGINT only set
/// `exitRequested`; SIGPIPE is swallowed, so that writing to a peer that is gone gives EPIPE.
#pragma once

#include <atomic>
#include <csignal>

/// 1 when the process shall end, 0 before. Written by the signal thread, read by any.
extern std::atomic<std::sig_atomic_t> exitRequested;

/// Blocks the three signals in the calling thread and starts the signal thread. Call before any
/// other thread is created, so that all inherit the mask. False after a failure, which is printed
/// to standard output; if only the thread could not be started, the signals stay blocked. Main
/// thread.
bool setupSignalHandler();

/// Ends the signal thread, whether it still waits or has ended by itself, and gives the calling
/// thread back the mask that it had before `setupSignalHandler`. Signals that came meanwhile do not
/// strike then, nor does a termination signal after one that has been obeyed: the process is
/// ending. Harmless when no thread was started. Same thread as `setupSignalHandler`.
void closeSignalHandler();

/// Joins the signal thread if it has ended because exit was requested, and leaves it alone while it
/// still waits. Says nothing and changes no mask. For ends of the process that skip
/// `closeSignalHandler`; harmless twice. Same thread as `setupSignalHandler`.
void joinEndedSignalThread();

/// Sleeps for `nMillis` milliseconds, or until exit is requested. True, at once, when it is. Never
/// touches a descriptor. Any thread.
[[nodiscard]] bool bWaitForExitRequest(int nMillis);

/// The body of the signal thread; `arg` is the set of signals (`sigset_t*`) it waits for.
void* signal_handling_thread(void* arg);
