#include "relayserver/peers/register_udp.h"

#include <stdexcept>

#include "base/clock.h"
#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "genner/output/RelayConnectNetMessage.h"
#include "genner/output/TicketRequestNetMessage.h"
#include "genner/output/message_types.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"
#include "relayserver/cslink/forward_queue.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/settings/time_limits.h"
#include "relayserver/sockets/fec_ports.h"
#include "relayserver/sockets/listeners.h"

using Orvex::RelayClient;
using Orvex::RelayClientTable;

namespace {

constexpr int kDone = 1;

/// The most requests for a ticket in a row. Two relays that call each other back, each refusing
/// what comes too often, would otherwise trigger each other for ever. A request so long after the
/// last one has a different cause and starts a new count.
constexpr int kMaxRequests = 4;
constexpr int kNewRoundSecs = 60;

/// A peer's stored ticket.
struct StoredTicket {
    unsigned char achTicket[RelayClient::nMAX_TICKET_LEN];
    int nLen;
    long lAge;
};

StoredTicket ticketOf(const RelayClient& otherRelay) {
    StoredTicket ticket{};
    otherRelay.GetTicket(ticket.achTicket, ticket.nLen, ticket.lAge);
    return ticket;
}

[[nodiscard]] bool bUsable(const StoredTicket& ticket) {
    return ticket.nLen != 0 && nowSecs() <= ticket.lAge + kTicketUsableSecs;
}

/// Sends one registration from `sockets[i]` to the socket of the same kind at the peer.
void sendFrom(const int (&sockets)[kAudioPrograms], int i, sockaddr_in siPeer, int nPortOffset,
              const Orvex::RelayConnectNetMessage& rcnm) {
    siPeer.sin_port = htons(static_cast<std::uint16_t>(ntohs(siPeer.sin_port) + nPortOffset));
    (void)rcnm.SendTo(sockets[i], siPeer);  // datagrams may be lost anyway
}

void sendRegistrations(const RelayClient& otherRelay, int specificProgram,
                       const Orvex::RelayConnectNetMessage& rcnm) {
    // A peer admits only the first few, so every other retry starts at the other end.
    const bool bBackwards = otherRelay.nTicketRequests != 0 && otherRelay.nTicketRequests % 2 == 0;
    const auto eachProgram = [&](const int(&sockets)[kAudioPrograms], int nPortOffset) {
        for (int nTurn = 0; nTurn < kAudioPrograms; ++nTurn) {
            const int i = bBackwards ? kAudioPrograms - 1 - nTurn : nTurn;
            if (specificProgram == kAllPrograms || specificProgram == i) {
                sendFrom(sockets, i, siPeerAudioAddress(otherRelay, static_cast<unsigned>(i)),
                         nPortOffset, rcnm);
            }
        }
    };
    // The peer admits only a few log-ins of one id at a time: audio before FEC.
    eachProgram(udp_listen_sockfd, 0);
    if (bFecEnable) {
        eachProgram(udp_fec1_sockfd, kFecSocketPortOffset);
        eachProgram(udp_fec2_sockfd, 2 * kFecSocketPortOffset);
    }
}

[[nodiscard]] bool bRequestedRecently(const RelayClient& otherRelay, std::time_t ttNow) {
    const double dSince = std::difftime(ttNow, otherRelay.ttLastTicketRequested);
    return dSince >= 0 && dSince < kTicketRequestSecs;  // negative: the clock was set back
}

/// Whether the limit on requests in a row is reached.
[[nodiscard]] bool bRequestLimitReached(const RelayClient& otherRelay, std::time_t ttNow) {
    const double dSince = std::difftime(ttNow, otherRelay.ttLastTicketRequested);
    return otherRelay.nTicketRequests >= kMaxRequests && dSince >= 0 && dSince < kNewRoundSecs;
}

/// Whether our last registrations may still count towards the peer's limit on log-ins and
/// registrations per period, so that new ones would be refused.
[[nodiscard]] bool bPeerMayThrottle(const RelayClient& otherRelay, std::time_t ttNow) {
    const double dSince = std::difftime(ttNow, otherRelay.ttLastUdpRegistration);
    return dSince >= 0 && dSince <= kPeriodNewConnects;
}

void countRequest(RelayClient& otherRelay, std::time_t ttNow) {
    const double dSince = std::difftime(ttNow, otherRelay.ttLastTicketRequested);
    const bool bNewRound = dSince >= kNewRoundSecs || dSince < 0;
    otherRelay.nTicketRequests = bNewRound ? 1 : otherRelay.nTicketRequests + 1;
    otherRelay.ttLastTicketRequested = ttNow;
}

void requestTicket(RelayClient& otherRelay) {
    const int nPeerID = otherRelay.GetClientID();
    const std::time_t ttNow = nowSecs();
    otherRelay.bUdpRegistrationOwed = true;
    if (bRequestedRecently(otherRelay, ttNow)) {
        writeToLog(true, "last ticket request for udp reg to relay %d still pending\n", nPeerID);
        return;
    }
    if (bRequestLimitReached(otherRelay, ttNow)) {
        writeToLog(true,
                   "WARNING: %d tickets in a row were of no use to register udp with relay %d, "
                   "requesting no more for a while\n",
                   kMaxRequests, nPeerID);
        return;
    }
    sockaddr_in siPeer{};
    otherRelay.GetAddress(siPeer);
    writeToLog(true, "retrieving a new ticket for udp registration to client %d at %s\n", nPeerID,
               sDottedAddress(siPeer).c_str());
    countRequest(otherRelay, ttNow);
    Orvex::TicketRequestNetMessage trnm(nPeerID, rcUdpReg);
    ForwardToCS(trnm);
}

/// False if a peer could not be registered.
[[nodiscard]] bool bReregisterAll() {
    RelayClientTable::Walk walk(ctAuthClientTable);
    if (!walk.bBeginTraverse()) {
        return true;
    }
    do {
        if (bIsRelayPeer(walk.current()) &&
            RegisterUdp(walk.current(), true, true, true, kAllPrograms) < 1) {
            return false;
        }
    } while (walk.bContinueTraverse());
    return true;
}

}  // namespace

int RegisterUdp(RelayClient& otherRelay, bool rx, bool tx, bool callback, int specificProgram) {
    const StoredTicket ticket = ticketOf(otherRelay);
    if (!bUsable(ticket)) {
        requestTicket(otherRelay);
        return kDone;
    }
    otherRelay.bUdpRegistrationOwed = false;
    otherRelay.ttLastUdpRegistration = nowSecs();
    writeToLog(true, "debug: registering udp with relay peer %u on udp ports with base %u\n",
               static_cast<unsigned>(otherRelay.GetClientID()),
               static_cast<unsigned>(ntohs(otherRelay.nRelayUdpBasePort)));
    Orvex::RelayConnectNetMessage rcnm(nSenderID, ticket.achTicket, ticket.nLen);
    rcnm.SetDestID((rx ? kFlagReceives : 0) | (tx ? kFlagSends : 0) |
                   (callback ? kFlagCallback : 0));
    rcnm.Pack(nullptr);
    sendRegistrations(otherRelay, specificProgram, rcnm);
    return kDone;
}

void retryOwedRegistrations(std::time_t ttNow) {
    RelayClientTable::Walk walk(ctAuthClientTable);
    if (!walk.bBeginTraverse()) {
        return;
    }
    do {
        RelayClient& rClient = walk.current();
        if (rClient.bUdpRegistrationOwed && rClient.nTicketRequests < kMaxRequests &&
            !bRequestedRecently(rClient, ttNow) && !bPeerMayThrottle(rClient, ttNow)) {
            RegisterUdp(rClient, true, true, true, kAllPrograms);
        }
    } while (walk.bContinueTraverse());
}

bool ReregisterRelayPeers() {
    writeToLog(true, "reregistering all relay peers\n");
    try {
        return bReregisterAll();
    } catch (const std::out_of_range&) {
        writeToLog(true, "WARNING - search for relay peers in table, stepped out of range!\n");
        return true;
    }
}
