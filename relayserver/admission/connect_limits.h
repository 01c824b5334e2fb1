/// Limits new connections per address and ticket log-ins per id. Both are counted over
/// `kPeriodNewConnects`. Main thread only.
#pragma once

#include <ctime>
#include <map>
#include <string>

#include "relayserver/settings/time_limits.h"

/// The limits, as averages over the period.
constexpr int kMaxNewConnectsPerIPPerSec = 10;
constexpr int kMaxNewLoginsPerIDPerSec = 1;

/// Connections per dotted IPv4 address, and log-ins per client id, in the current period; and the
/// time when it began. Only the functions below change them.
extern std::map<std::string, int>& ipAcceptHistory;
extern std::time_t ttIPCheckCurrPeriodStart;
extern std::map<unsigned, int>& idTixAcceptHistory;
extern std::time_t ttIDCheckCurrPeriodStart;

/// Counts one connection from `sAddress`; true if it may be accepted. The 100th of a period is the
/// first that is refused.
[[nodiscard]] bool CheckIPAddrConnectLimit(const std::string& sAddress);

/// Counts one log-in of `nClientID`; true if it may be accepted. The 10th of a period is the first
/// that is refused.
[[nodiscard]] bool CheckTicketIDConnectLimit(unsigned nClientID);

/// Puts the counters back to their state at process start.
void resetConnectLimitsForTest();
