/// The loss of clients, and reporting it to the connection server. Main thread only.
#pragma once

#include "relayserver/clients/departures.h"

/// Reports to the connection server that the admitted client `nClientID` was lost, and remembers
/// the loss in case the server is out of reach.
void reportLostClient(unsigned nClientID);

/// Cleans up after a failure on `fd`. A client of any table is removed, and its loss reported if it
/// had an id. The link to the connection server is marked as broken, for the event loop to take
/// down. A pending connect to another relay is closed without a report, since the connection server
/// does not know of it yet; an unknown descriptor is just closed. `reason` is counted. Frees the
/// record of that client and of no other; since failed sends end here, any function that sends to a
/// client may free it.
void CleanBadSocket(int fd, LeaveReason reason);
