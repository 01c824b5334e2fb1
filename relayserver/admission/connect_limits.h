/// Counts new connections per address and ticket log-ins per id, and says when one too many came.
/// Both counters run over `kPeriodNewConnects`. Main thread only.
#pragma once

#include <ctime>
#include <map>
#include <string>

#include "relayserver/settings/time_limits.h"

constexpr int kMaxNewConnectsPerIPPerSec = 10;
constexpr int kMaxNewLoginsPerIDPerSec = 1;

/// Connections per dotted IPv4 address, and log-ins per client id, of the running period; and when
/// that period began. Written only here.
extern std::map<std::string, int>& ipAcceptHistory;
extern std::time_t ttIPCheckCurrPeriodStart;
extern std::map<unsigned, int>& idTixAcceptHistory;
extern std::time_t ttIDCheckCurrPeriodStart;

/// Counts one connection from `sAddress`; true while it may be accepted. The 100th of a period is
/// the first to be refused.
[[nodiscard]] bool CheckIPAddrConnectLimit(const std::string& sAddress);

/// Counts one log-in of `nClientID`; true while it may be accepted. The 10th of a period is the
/// first to be refused.
[[nodiscard]] bool CheckTicketIDConnectLimit(unsigned nClientID);

/// Puts the counters back to their state at process start.
void resetConnectLimitsForTest();
