/// What makes a client a relay peer. Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// A peer is a client that both receives and sources audio on program 0; there is no other mark.
[[nodiscard]] inline bool bIsRelayPeer(const Orvex::RelayClient& client) {
    return client.bIsRcvAudio(0) && client.bIsSrcAudio(0);
}
