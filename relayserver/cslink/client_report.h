/// What the relay tells a connection server about its clients when it logs in, and what it does
/// with them when the server knows nothing of them. Main thread only.
#pragma once

#include "relayserver/clients/departures.h"

/// Confirms every admitted client on the link; 0, or -1 when the link did not take all.
int IdentifyClients();

/// Reports the clients lost lately that have not come back, and forgets those reported; 0, or -1
/// when some are left because the link did not take them.
int IdentifyLosses();

/// Drops every admitted and every loose client, for `reason`, and every route.
void MopupCS(LeaveReason reason);
