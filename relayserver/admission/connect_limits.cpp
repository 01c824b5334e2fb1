#include "relayserver/admission/connect_limits.h"

#include "base/clock.h"
#include "relayserver/settings/time_limits.h"

// Never destroyed, like all state that the process exits with.
std::map<std::string, int>& ipAcceptHistory = *new std::map<std::string, int>;
std::time_t ttIPCheckCurrPeriodStart = 0;
std::map<unsigned, int>& idTixAcceptHistory = *new std::map<unsigned, int>;
std::time_t ttIDCheckCurrPeriodStart = 0;

namespace {

/// Counts `key`; true while its count in the current period is below `nLimit`, and always for the
/// first.
template <class Key>
[[nodiscard]] bool bCountWithin(std::map<Key, int>& rHistory, std::time_t& rttPeriodStart,
                                const Key& key, int nLimit) {
    const std::time_t ttNow = nowSecs();
    // A clock that was set back must not stretch the period, perhaps by hours.
    if (std::difftime(ttNow, rttPeriodStart) > kPeriodNewConnects || ttNow < rttPeriodStart) {
        rHistory.clear();
        rttPeriodStart = ttNow;
    }
    const auto [itCount, bFirst] = rHistory.try_emplace(key, 1);
    return bFirst || ++itCount->second < nLimit;
}

}  // namespace

bool CheckIPAddrConnectLimit(const std::string& sAddress) {
    return bCountWithin(ipAcceptHistory, ttIPCheckCurrPeriodStart, sAddress,
                        kMaxNewConnectsPerIPPerSec * kPeriodNewConnects);
}

bool CheckTicketIDConnectLimit(unsigned nClientID) {
    return bCountWithin(idTixAcceptHistory, ttIDCheckCurrPeriodStart, nClientID,
                        kMaxNewLoginsPerIDPerSec * kPeriodNewConnects);
}

void resetConnectLimitsForTest() {
    ipAcceptHistory.clear();
    idTixAcceptHistory.clear();
    ttIPCheckCurrPeriodStart = 0;
    ttIDCheckCurrPeriodStart = 0;
}
