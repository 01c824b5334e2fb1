/// Counts heap allocations, for tests of code that must not allocate.
#pragma once

#include <cstddef>

/// How often `operator new` was called in this process, in all forms except the over-aligned ones.
std::size_t nAllocations();
