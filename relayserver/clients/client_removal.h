/// The only way in which a connection leaves its table for good. Main thread only.
#pragma once

#include "orvex/relay_client_table.h"
#include "relayserver/clients/departures.h"

/// Removes `client` from `table`, which must hold it: forgets its video permissions, frees its TLS
/// session and closes its descriptor; `reason` is counted. Reports nothing to the connection
/// server. The record is freed: pointers and references to it become invalid.
void DeleteClient(Orvex::RelayClientTable& table, Orvex::RelayClient& client, LeaveReason reason);
