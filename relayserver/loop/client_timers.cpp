#include "relayserver/loop/client_timers.h"

#include <stdexcept>

#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "genner/output/ChatNetMessage.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/cslink/client_loss.h"
#include "relayserver/settings/time_limits.h"

using Orvex::RelayClient;
using Orvex::RelayClientTable;

namespace {

constexpr const char* kAuthOutOfRange =
    "WARNING - step through authenticated clients, out of bounds\n";
constexpr const char* kPendingOutOfRange =
    "WARNING - connects pending table, stepped out of range\n";
constexpr const char* kLooseOutOfRange = "WARNING - loose client table, stepped out of range\n";
constexpr const char* kHandshakeOutOfRange =
    "WARNING - ssl handshake table, stepped out of range\n";

/// Calls `visit` for each client of `table`; it may remove clients, that one included.
template <class Function>
void walkTable(RelayClientTable& table, const char* sOutOfRange, Function visit) {
    try {
        RelayClientTable::Walk walk(table);
        if (walk.bBeginTraverse()) {
            do {
                visit(walk.current());
            } while (walk.bContinueTraverse());
        }
    } catch (const std::out_of_range&) {
        writeToLog(true, "%s", sOutOfRange);
    }
}

double dSilentSecs(const RelayClient& client, std::time_t ttNow) {
    long lLastMessage = 0;
    client.GetLastMessageTime(lLastMessage);
    return std::difftime(ttNow, lLastMessage);
}

unsigned nSocketOf(RelayClient& client) {
    return static_cast<unsigned>(client.GetMessageSocket()->getMsgSockFileDesc());
}

std::string sAddressOf(const RelayClient& client) {
    sockaddr_in siAddress{};
    client.GetAddress(siAddress);
    return sDottedAddress(siAddress);
}

void dropIdleClient(RelayClient& client, double dSilent) {
    const auto nClientID = static_cast<unsigned>(client.GetClientID());
    writeToLog(true, "Dropping connect to client ID %u, socket %u, %s - idle for %.f seconds\n",
               nClientID, nSocketOf(client), sAddressOf(client).c_str(), dSilent);
    constexpr std::string_view kTimeoutNotice = "Your client has been timed out by its relay\r\n";
    Orvex::ChatNetMessage cnm;
    cnm.SetName("SERVER");
    cnm.SetChat(kTimeoutNotice.data(), static_cast<int>(kTimeoutNotice.size()));
    (void)cnm.Send(true, *client.GetMessageSocket());  // it is dropped in any case
    reportLostClient(nClientID);
    DeleteClient(ctAuthClientTable, client, LeaveReason::kIdle);
}

/// False if the client sent too much and has been removed.
[[nodiscard]] bool bCheckInput(RelayClient& client, std::time_t ttNow) {
    constexpr double kReportAboveRate = 12500;
    constexpr int kHalfHour = 1800;
    constexpr int kReportAt = 900;
    const unsigned nBytes = client.GetTcpInputByteCounter();
    const auto nClientID = static_cast<unsigned>(client.GetClientID());
    if (bIsRelayPeer(client)) {
        return true;
    }
    if (nBytes > kMaxAllowedTcpBytesPerSecond * dHeartbeatPeriod) {
        writeToLog(true,
                   "WARNING: input TCP count on client %u over limit : %u bytes in %.01f seconds\n",
                   nClientID, nBytes, dHeartbeatPeriod);
        CleanBadSocket(client.GetMessageSocket()->getMsgSockFileDesc(),
                       LeaveReason::kOverInputLimit);
        return false;
    }
    const double dRate = nBytes / dHeartbeatPeriod;
    if (ttNow % kHalfHour == kReportAt && dRate > kReportAboveRate) {
        writeToLog(true,
                   "DEBUG: input TCP bandwidth check on client %u, rate is %.0f bytes per second\n",
                   nClientID, dRate);
    }
    return true;
}

}  // namespace

void dropIdleClients(std::time_t ttNow) {
    walkTable(ctAuthClientTable, kAuthOutOfRange, [ttNow](RelayClient& client) {
        const double dSilent = dSilentSecs(client, ttNow);
        if (dSilent > dIdleTimeOut) {
            dropIdleClient(client, dSilent);
        }
    });
}

void cancelStaleConnects(std::time_t ttNow) {
    walkTable(ctOutboundConnectsPending, kPendingOutOfRange, [ttNow](RelayClient& client) {
        if (dSilentSecs(client, ttNow) > dPeerConnectTimeOut) {
            writeToLog(true, "Failed to reach out to relay %s in 5 seconds, cancelling attempt\n",
                       sAddressOf(client).c_str());
            DeleteClient(ctOutboundConnectsPending, client, LeaveReason::kConnectTimedOut);
        }
    });
}

void dropStalledHandshakes(std::time_t ttNow) {
    walkTable(ctSslHandshakingTable, kHandshakeOutOfRange, [ttNow](RelayClient& client) {
        if (dSilentSecs(client, ttNow) > dLogInTimeOut) {
            writeToLog(true, "SSL handshake timed out on socket %u, %s\n", nSocketOf(client),
                       sAddressOf(client).c_str());
            DeleteClient(ctSslHandshakingTable, client, LeaveReason::kHandshakeTimedOut);
        }
    });
}

void dropLooseClients(std::time_t ttNow) {
    walkTable(ctLooseClientTable, kLooseOutOfRange, [ttNow](RelayClient& client) {
        const double dSilent = dSilentSecs(client, ttNow);
        if (dSilent > dLogInTimeOut) {
            writeToLog(
                true,
                "Dropping client that has sent no login ticket after %.f seconds, socket %u, "
                "%s\n",
                dSilent, nSocketOf(client), sAddressOf(client).c_str());
            DeleteClient(ctLooseClientTable, client, LeaveReason::kNoTicketInTime);
        }
    });
}

void checkInputAndSendHeartbeats(std::time_t ttNow) {
    Orvex::HeartbeatNetMessage hbnm;
    walkTable(ctAuthClientTable, kAuthOutOfRange, [ttNow, &hbnm](RelayClient& client) {
        if (!bCheckInput(client, ttNow)) {
            return;
        }
        client.ClearTcpInputByteCounter();
        if (hbnm.Send(true, *client.GetMessageSocket()) <= 0) {
            CleanBadSocket(client.GetMessageSocket()->getMsgSockFileDesc(),
                           LeaveReason::kSendFailed);
        }
    });
}
