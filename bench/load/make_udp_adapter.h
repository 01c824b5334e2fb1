/// Chooses the UDP adapter for the daemon under test.
#pragma once

#include <memory>

#include "bench/load/options.h"
#include "bench/load/udp_adapter.h"

namespace Load {

/// The adapter for `options.sDaemon`. Ends the program when there is none of that name.
[[nodiscard]] std::unique_ptr<UdpAdapter> makeUdpAdapter(const Options& options);

}  // namespace Load
