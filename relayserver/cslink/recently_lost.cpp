#include "relayserver/cslink/recently_lost.h"

#include <cstddef>

#include "connserver/logging.h"
#include "relayserver/cslink/link_state.h"

using Orvex::LostConnectionNetMessage;

// Never destroyed, because the process ends with losses on the list.
std::vector<std::shared_ptr<LostConnectionNetMessage>>& vRecentlyLost =
    *new std::vector<std::shared_ptr<LostConnectionNetMessage>>;

void AddToRecentlyLost(const LostConnectionNetMessage* lcnm) {
    vRecentlyLost.push_back(std::make_shared<LostConnectionNetMessage>(*lcnm));
}

bool RemoveFromRecentlyLost(unsigned clientID) {
    const size_t nRemoved = std::erase_if(vRecentlyLost, [clientID](const auto& pLost) {
        return static_cast<unsigned>(pLost->GetClientID()) == clientID;
    });
    if (nRemoved == 0) {
        return false;
    }
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

void clearRecentlyLostOnBoundary(std::time_t ttNow) {
    if (ttNow % _kLossClearInterval == 0 && nConnectionStage == CONNECTION_FINISHED &&
        !vRecentlyLost.empty()) {
        writeToLog(true, "periodic cleanup - removing %zu entries from recently lost array\n",
                   vRecentlyLost.size());
        vRecentlyLost.clear();
    }
}

void resetRecentlyLostForTest() {
    vRecentlyLost.clear();
}
