/// Admits connections that log in with a valid ticket. Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// The most bytes that a client may send before it is admitted.
constexpr unsigned kPreloginMaxAllowedTcpBytes = 20000;

/// Reads from a readable loose client and handles its complete messages: afterwards the client is
/// admitted, still loose, or gone. May remove an older admitted client with the same id.
void stepLooseClient(Orvex::RelayClient& client);
