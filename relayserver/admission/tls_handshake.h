/// Advances the TLS handshake of new connections. Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// Performs one step for a client of the handshaking table whose descriptor is ready: afterwards
/// the client is in the loose table, still in the handshaking table, or gone.
void stepTlsHandshake(Orvex::RelayClient& client);
