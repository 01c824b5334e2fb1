/// What makes a client a relay peer. Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// A peer is a client that both receives and sources audio on program 0; there is no other mark.
[[nodiscard]] bool bIsRelayPeer(const Orvex::RelayClient& client);

/// Makes `client` a relay peer and enlarges its send buffer for the traffic of many clients;
/// nothing happens to one that is a peer already.
void MarkAsRelay(Orvex::RelayClient& client);
