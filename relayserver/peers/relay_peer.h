/// Marks clients as relay peers and determines the addresses of their audio sockets.
/// Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// Makes the admitted `client` a relay peer and enlarges its send buffer for the traffic of many
/// clients; does nothing if it is a peer already.
void MarkAsRelay(Orvex::RelayClient& client);

/// The audio address of a peer for program `nProgram` (0..5): the peer's IP address, and its base
/// port + 2 * `nProgram`. The base port is 0 until an order has given it.
[[nodiscard]] sockaddr_in siPeerAudioAddress(const Orvex::RelayClient& client, unsigned nProgram);

/// Sets a peer's UDP base port (host byte order, low 16 bits; 0 is ignored), as given by an order.
/// Audio that it receives already goes to the new base from now on, whatever address it registered:
/// a relay also registers from its FEC sockets, where it does not receive audio.
void setPeerUdpBasePort(Orvex::RelayClient& client, int nUdpBasePort);
