#include "relayserver/clients/recently_lost.h"

#include <cstddef>
#include <unordered_map>

#include "connserver/logging.h"

using Orvex::LostConnectionNetMessage;

// Never destroyed, because the process exits with losses on the list.
std::vector<std::shared_ptr<LostConnectionNetMessage>>& vRecentlyLost =
    *new std::vector<std::shared_ptr<LostConnectionNetMessage>>;

namespace {

/// The number of entries of each client: most that log in have none, which this tells without
/// searching the list.
std::unordered_map<unsigned, std::size_t>& nLossesByID =
    *new std::unordered_map<unsigned, std::size_t>;

unsigned nClientIDOf(const LostConnectionNetMessage& lcnm) {
    return static_cast<unsigned>(lcnm.GetClientID());
}

void forgetAll() {
    vRecentlyLost.clear();
    nLossesByID.clear();
}

}  // namespace

void AddToRecentlyLost(const LostConnectionNetMessage* lcnm) {
    ++nLossesByID[nClientIDOf(*lcnm)];
    vRecentlyLost.push_back(std::make_shared<LostConnectionNetMessage>(*lcnm));
}

bool RemoveFromRecentlyLost(unsigned clientID) {
    if (nLossesByID.erase(clientID) == 0) {
        return false;
    }
    const std::size_t nRemoved = std::erase_if(
        vRecentlyLost, [clientID](const auto& pLost) { return nClientIDOf(*pLost) == clientID; });
    writeToLog(true,
               "Removed recently lost message on client %u from re-send list (%zu instances)\n",
               clientID, nRemoved);
    return true;
}

void ConfirmFromRecentlyLost(unsigned clientID) {
    if (RemoveFromRecentlyLost(clientID)) {
        writeToLog(true, "CS seems to have taken care of links for client %u\n", clientID);
    }
}

void forgetOldestLosses(std::size_t nLosses) {
    const auto itEnd = vRecentlyLost.begin() + static_cast<std::ptrdiff_t>(nLosses);
    for (auto it = vRecentlyLost.begin(); it != itEnd; ++it) {
        const auto itCount = nLossesByID.find(nClientIDOf(**it));
        if (--itCount->second == 0) {
            nLossesByID.erase(itCount);
        }
    }
    vRecentlyLost.erase(vRecentlyLost.begin(), itEnd);
}

void clearRecentlyLostOnBoundary(std::time_t ttNow, bool bLoggedIn) {
    if (!vRecentlyLost.empty() && bLoggedIn && ttNow % _kLossClearInterval == 0) {
        writeToLog(true, "periodic cleanup - removing %zu entries from recently lost array\n",
                   vRecentlyLost.size());
        forgetAll();
    }
}

void resetRecentlyLostForTest() {
    forgetAll();
}
