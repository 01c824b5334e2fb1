/// Why connections end. Main thread only.
#pragma once

#include <cstdint>

enum class LeaveReason {
    kLoggedOut,          ///< the client sent a log-out
    kNewerLogin,         ///< its id logged in on another connection
    kConnectionLost,     ///< the client closed the connection, or reading from it failed
    kErrorEvent,         ///< the system reported an error or a hang-up
    kSendFailed,         ///< a message could not be written to it
    kIdle,               ///< silent for too long
    kOverInputLimit,     ///< sent more than an admitted client may
    kRefusedByRelay,     ///< the other relay refused our log-in
    kHibernation,        ///< no connection server for too long
    kNewSession,         ///< the connection server does not know the relay's session
    kTicketRefused,      ///< its ticket does not admit
    kNoTicketInTime,     ///< sent no valid ticket in time
    kOverLoginBudget,    ///< sent too much before its log-in
    kHandshakeFailed,    ///< TLS handshake
    kHandshakeTimedOut,  ///< TLS handshake
    kConnectTimedOut,    ///< connect to another relay
    kConnectReplaced,    ///< connect to another relay, which was ordered again with another address
    kAlreadyConnected,   ///< connect to another relay, which has connected to us meanwhile
};

/// Counts one connection that ended.
void noteDeparture(LeaveReason reason);

/// How many connections have ended for `reason` since process start.
[[nodiscard]] std::uint64_t nDepartures(LeaveReason reason);

void resetDeparturesForTest();
