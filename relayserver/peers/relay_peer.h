/// Marks clients as relay peers, and knows where a peer's audio sockets are. Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// Makes `client`, an admitted one, a relay peer and enlarges its send buffer for the traffic of
/// many clients; nothing happens to one that is a peer already.
void MarkAsRelay(Orvex::RelayClient& client);

/// The audio address of a peer: its own IP address, at its base port + 2 for each program. The port
/// is 0 for program 0 while no order has named the base port.
[[nodiscard]] sockaddr_in siPeerAudioAddress(const Orvex::RelayClient& client, unsigned nProgram);

/// Takes a peer's UDP base port (host byte order, 16 bits of it; 0 says nothing) from an order that
/// names the peer. Audio that it receives already goes to that base from now on, wherever it
/// registered from: a relay also registers from its FEC sockets, which are not where audio goes.
void namePeerPort(Orvex::RelayClient& client, int nUdpBasePort);
