/// What the adapters of the peers share: group names, envelopes, answers during set-up.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "bench/load/adapter.h"

namespace Load {

/// The subject, channel or topic of a group; all have the same length.
[[nodiscard]] std::string sTopicOf(int nGroup);

[[nodiscard]] Frame makeFrame(const std::string& sBefore, const std::string& sPayload,
                              std::string_view svAfter);

/// Reads until this text has arrived.
void awaitText(Connection& rConnection, std::string_view svText);

/// Reads until this many bytes have arrived, and returns them.
[[nodiscard]] std::string awaitBytes(Connection& rConnection, std::size_t nBytes);

}  // namespace Load
