/// The only door through which a connection leaves its table. Main thread only.
#pragma once

#include "orvex/relay_client_table.h"
#include "relayserver/clients/departures.h"

/// Removes `client` from `table`: forgets its video permissions, frees its TLS session and closes
/// its descriptor; `reason` is counted. Tells nobody. The record is freed: pointers and references
/// to it are dead.
void DeleteClient(Orvex::RelayClientTable& table, Orvex::RelayClient& client, LeaveReason reason);
