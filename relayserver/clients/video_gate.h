/// Decides which video messages are sent to a destination: by the permission of the pair and by the
/// backlog of the destination's connection. Main thread only.
#pragma once

#include "orvex/net_message.h"
#include "orvex/relay_client.h"
#include "relayserver/clients/PermissionsCache.h"

/// Permissions by (source, destination). Never destroyed.
extern Tessel_Routing::PermissionsCache& videoPermissions;

/// The largest unsent TCP backlog (bytes) at which a new video frame may still start.
constexpr int kMaxVideoFullness = 200000;

/// Whether video from `nSource` may be sent to `destination`. A pair that is new or stale is
/// granted here, but only from its next message on.
[[nodiscard]] bool bVideoPermitted(unsigned nSource, Orvex::RelayClient& destination);

/// Whether page `nPage` (from 1) of a frame may be sent to `destination` now. A frame starts only
/// while the backlog is small, and is then sent whole or not at all.
[[nodiscard]] bool bVideoPageFits(int nPage, Orvex::RelayClient& destination);

/// The page number in a video message.
[[nodiscard]] int nVideoPage(const Orvex::NetMessage& nmMessage);
