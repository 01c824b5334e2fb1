/// What a connection must send to be admitted: a log-in with a ticket. Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// Bytes that a client may send before it is admitted.
constexpr unsigned kPreloginMaxAllowedTcpBytes = 20000;

/// Reads what a readable loose client sent and handles its whole messages: afterwards the client is
/// admitted, still loose, or gone.
void stepLooseClient(Orvex::RelayClient& client);
