/// Accepts TLS connections into the handshaking table. Main thread only.
#pragma once

/// Accepts one connection from the TLS listener, unless it is refused.
void acceptTlsClient();
