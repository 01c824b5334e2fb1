/// The tables of connections. A connection is in exactly one of them: it moves from handshaking
/// (TLS only) to loose to admitted, or from pending to admitted, and is removed by
/// `client_removal`. Main thread only. Never destroyed, because the process exits with clients
/// connected.
#pragma once

#include "orvex/relay_client_table.h"

/// TLS connections whose handshake has not finished.
extern Orvex::RelayClientTable& ctSslHandshakingTable;

/// Connections that have not yet presented a valid ticket; their client id is 0.
extern Orvex::RelayClientTable& ctLooseClientTable;

/// Connects to other relays, ordered and not yet completed; their client id is the other relay's.
extern Orvex::RelayClientTable& ctOutboundConnectsPending;

/// Admitted clients and relay peers, with their client id.
extern Orvex::RelayClientTable& ctAuthClientTable;
