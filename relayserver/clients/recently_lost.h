/// The recently lost clients, so that a connection server that was out of reach can be told once
/// the link is back. Main thread only.
#pragma once

#include <cstddef>
#include <ctime>
#include <memory>
#include <vector>

#include "genner/output/LostConnectionNetMessage.h"

/// One entry for each loss, oldest first. Only the functions below change it.
extern std::vector<std::shared_ptr<Orvex::LostConnectionNetMessage>>& vRecentlyLost;

/// The list is emptied at clock times that are multiples of this many seconds.
// NOLINTNEXTLINE(clang-diagnostic-reserved-identifier): a fixed name.
constexpr int _kLossClearInterval = 10800;

/// Remembers a copy of `lcnm`.
void AddToRecentlyLost(const Orvex::LostConnectionNetMessage* lcnm);

/// Forgets every loss of `clientID`, which is back. True if there was one.
bool RemoveFromRecentlyLost(unsigned clientID);

/// Likewise, because the connection server has dissolved all links of the client.
void ConfirmFromRecentlyLost(unsigned clientID);

/// Removes the `nLosses` oldest entries; the list must have that many.
void forgetOldestLosses(std::size_t nLosses);

/// Empties the list when `ttNow` is a multiple of `_kLossClearInterval` and the relay is logged in.
void clearRecentlyLostOnBoundary(std::time_t ttNow, bool bLoggedIn);

/// Back to the state at process start.
void resetRecentlyLostForTest();
