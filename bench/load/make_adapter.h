/// Chooses the adapter for the daemon under test.
#pragma once

#include <memory>

#include "bench/load/adapter.h"
#include "bench/load/options.h"

namespace Load {

/// The adapter for `options.sDaemon`. Ends the program when there is none of that name.
[[nodiscard]] std::unique_ptr<Adapter> makeAdapter(const Options& options);

}  // namespace Load
