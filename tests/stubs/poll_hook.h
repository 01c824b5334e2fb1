/// Stands before the system's `poll`, for tests of code that waits: counts the waits, and lets
/// something happen as if meanwhile.
#pragma once

#include <cstddef>
#include <functional>

/// How often `poll` was called in this process.
std::size_t nPolls();

/// Runs once, at the start of the next `poll`.
void onNextPoll(std::function<void()> happens);
