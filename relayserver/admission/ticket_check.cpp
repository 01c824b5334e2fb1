#include "relayserver/admission/ticket_check.h"

#include <cmath>
#include <gsl/span>

#include "base/clock.h"
#include "connserver/logging.h"
#include "orvex/orvex.h"
#include "relayserver/admission/connect_limits.h"
#include "relayserver/settings/session_keys.h"

using Orvex::KTicket;

namespace {

constexpr int kLogAgeSecs = 600;
constexpr size_t kMaxTicketLen = 64;

/// What the sender claims, and what its ticket says.
struct TicketClaim {
    unsigned nClientID;
    in_addr iaPeer;
    std::time_t ttNow;
    KTicket ktTicket;
    TicketLog log;
};

void logRejection(const char* sWhy, const TicketClaim& claim) {
    if (claim.log == TicketLog::kQuiet) {
        return;
    }
    unsigned nTicketID = 0;
    int nTicketAddr = 0;
    std::time_t ttTicket = 0;
    claim.ktTicket.GetClientID(nTicketID);
    claim.ktTicket.GetClientAddr(nTicketAddr);
    claim.ktTicket.GetTimeStamp(ttTicket);
    writeToLog(true,
               "%s - plaintext/established info - id=%u, addr=%lu, time=%lu, info in ticket - "
               "id=%u, addr=%u, time=%lu\n",
               sWhy, claim.nClientID, static_cast<unsigned long>(claim.iaPeer.s_addr),
               static_cast<unsigned long>(claim.ttNow), nTicketID,
               static_cast<unsigned>(nTicketAddr), static_cast<unsigned long>(ttTicket));
}

[[nodiscard]] bool bTicketValid(const TicketClaim& claim) {
    unsigned nTicketID = 0;
    std::time_t ttTicket = 0;
    claim.ktTicket.GetClientID(nTicketID);
    claim.ktTicket.GetTimeStamp(ttTicket);
    const double dAge = std::fabs(std::difftime(claim.ttNow, ttTicket));
    if (nTicketID != claim.nClientID) {
        logRejection("Client login ticket rejected for registration info mismatch", claim);
        return false;
    }
    if (dAge < kTicketMaxAgeSecs) {
        if (CheckTicketIDConnectLimit(claim.nClientID)) {
            return true;
        }
        if (claim.log == TicketLog::kTell) {
            writeToLog(true,
                       "Rejecting ticket for client %u based on temporary connection limits for "
                       "this ID!\n",
                       claim.nClientID);
        }
        return false;
    }
    // Small clock differences are common and would only fill the log.
    if (dAge > kLogAgeSecs) {
        logRejection("Login ticket rejected with large time mismatch", claim);
    }
    return false;
}

}  // namespace

bool CheckTicket(const Orvex::RelayConnectNetMessage& rcnm, in_addr iaPeer, TicketLog log) {
    unsigned char achTicket[kMaxTicketLen] = {};
    int nTicketLen = 0;
    rcnm.GetTicket(achTicket, nTicketLen);
    const auto nWholeBlocks = static_cast<size_t>(nTicketLen) / kDESKeyLen * kDESKeyLen;
    if (nWholeBlocks < static_cast<size_t>(KTicket::KTICKET_SIZE)) {
        if (log == TicketLog::kTell) {
            writeToLog(true, "ticket rejected: improper length\n");
        }
        return false;
    }
    decryptTicketBlocks(achTicket, nWholeBlocks);
    return bTicketValid({rcnm.GetClientID(), iaPeer, nowSecs(),
                         KTicket(gsl::span<const unsigned char>(achTicket, nWholeBlocks)), log});
}
