#include "relayserver/clients/client_tables.h"

Orvex::RelayClientTable& ctSslHandshakingTable = *new Orvex::RelayClientTable;
Orvex::RelayClientTable& ctLooseClientTable = *new Orvex::RelayClientTable;
Orvex::RelayClientTable& ctOutboundConnectsPending = *new Orvex::RelayClientTable;
Orvex::RelayClientTable& ctAuthClientTable = *new Orvex::RelayClientTable;
