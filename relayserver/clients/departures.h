/// Why connections end. Main thread only.
#pragma once

#include <cstdint>

/// Why a connection was removed.
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
    kTicketRefused,      ///< its ticket was not valid
    kNoTicketInTime,     ///< sent no valid ticket in time
    kOverLoginBudget,    ///< sent too much before its log-in
    kHandshakeFailed,    ///< the TLS handshake failed
    kHandshakeTimedOut,  ///< the TLS handshake took too long
    kConnectTimedOut,    ///< the connect to another relay took too long
    kConnectReplaced,    ///< connect to another relay, ordered again with another address
    kAlreadyConnected,   ///< connect to another relay, which connected to us meanwhile
};

/// Counts one connection that ended.
void noteDeparture(LeaveReason reason);

/// How many connections have ended for `reason` since process start.
[[nodiscard]] std::uint64_t nDepartures(LeaveReason reason);

/// Sets all counts to 0.
void resetDeparturesForTest();
