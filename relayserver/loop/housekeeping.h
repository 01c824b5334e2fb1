/// The time-driven work at the start and at the end of each pass. Main thread only.
#pragma once

#include <ctime>

/// Times of this pass and of the one before it.
extern std::time_t ttThisLoop;
extern std::time_t ttLastLoop;

/// Ready descriptors of the last pass, and their running averages over about a thousand and a
/// million passes.
extern double epoll_load_avg_1;
extern double epoll_load_avg_1K;
extern double epoll_load_avg_1M;

/// Checks the database, the log file, the archive, the list of losses and paused listeners; decides
/// whether the timers run at the end of this pass.
void headOfPass();

/// Adds the number of ready descriptors to the load averages.
void noteLoad(int nReady);

/// Runs the timers if this pass is the first of a second divisible by four. May remove clients.
void tailOfPass();

/// Back to the state at process start.
void resetHousekeepingForTest();
