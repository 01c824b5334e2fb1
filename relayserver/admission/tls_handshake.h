/// Brings the TLS handshake of a new connection forward. Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// One step for a client of the handshaking table whose descriptor is ready: afterwards the client
/// stands in the loose table, still in the handshaking table, or is gone.
void stepTlsHandshake(Orvex::RelayClient& client);
