/// What the relay reports about its clients when it logs in to a connection server, and the removal
/// of all clients when the server does not know the session. Main thread only.
#pragma once

#include "relayserver/clients/departures.h"

/// Confirms every admitted client to the connection server. Returns 0, or -1 if a send failed
/// before all were confirmed.
int IdentifyClients();

/// Reports the recently lost clients that have not reconnected and forgets those reported. Returns
/// 0, or -1 if a send failed and some are left.
int IdentifyLosses();

/// Drops every admitted and every loose client, for `reason`, and every route.
void MopupCS(LeaveReason reason);
