/// How clients are lost, and what the connection server hears of it. Main thread only.
#pragma once

#include "relayserver/clients/departures.h"

/// Tells the connection server that it lost the admitted client `nClientID`, and remembers so for a
/// connection server that is out of reach.
void reportLostClient(unsigned nClientID);

/// Ends whatever a failed descriptor belongs to: a client of any table, whose loss is reported if
/// it had an id, or the connection-server link, which is marked as broken and taken down by the
/// loop. An unknown descriptor is closed; so is a pending connect to another relay, of which the
/// connection server has not heard yet. Frees the record of that client and of no other. Because a
/// failed send ends here, so may any function that sends to a client. `reason` is counted.
void CleanBadSocket(int fd, LeaveReason reason);
