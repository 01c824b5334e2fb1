/// Takes new TLS connections into the handshaking table. Main thread only.
#pragma once

/// Accepts one connection from the TLS listener.
void acceptTlsClient();
