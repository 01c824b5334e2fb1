/// The only doors through which a connection leaves. Main thread only.
///
/// Both free the client's record, and no other: a pointer or reference to it is dead afterwards.
/// Because a failed send ends here, so may any function that sends to a client.
#pragma once

#include "orvex/relay_client_table.h"

/// Removes `client` from `table`: forgets its video permissions, frees its TLS session and closes
/// its descriptor. Tells nobody.
void DeleteClient(Orvex::RelayClientTable& table, Orvex::RelayClient& client);

/// Tells the connection server that it lost the admitted client `nClientID`, and remembers so for a
/// connection server that is out of reach.
void reportLostClient(unsigned nClientID);

/// Reports the loss of `client`, a record of `table`, and deletes it.
void reportAndDelete(Orvex::RelayClientTable& table, Orvex::RelayClient& client);

/// Ends whatever a failed descriptor belongs to: a client of any table, whose loss is reported if
/// it had an id, or the connection-server link, which is marked as broken and taken down by the
/// loop. An unknown descriptor is closed; so is a pending connect to another relay, of which the
/// connection server has not heard yet.
void CleanBadSocket(int fd);
