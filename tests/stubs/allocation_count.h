/// Counts what the program takes from the heap, for tests of paths that must take nothing.
#pragma once

#include <cstddef>

/// How often `operator new` was called in this process, in every form but the over-aligned ones.
std::size_t nAllocations();
