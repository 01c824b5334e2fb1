/// Delivers messages: to the connection server, to the one client named in the header, or to every
/// client that the routes give for the source and pipe. Main thread only.
#pragma once

#include "orvex/net_message.h"
#include "relayserver/switching/message_run.h"

/// Successful routed sends of this process (wraps).
extern int nPacketsSwitched;

/// Switches one message, unchanged. Bit 0 of `nFlags` delivers it to the destination in its header
/// whatever its type; with `bFromRelayPeer` it is not forwarded to another relay. Returns false if
/// a send failed: that destination has been removed, so look up clients again afterwards, the
/// sender included. A message too large for a frame is discarded without affecting any destination.
bool SwitchPacket(Orvex::NetMessage* nmpMsg, int nFlags, bool bFromRelayPeer);

/// Switches the messages of a run as if one by one; does nothing for an empty run. Returns false if
/// a send failed: that destination got what could be written and has been removed. The bytes of the
/// run must not be owned by the sending client, which may be removed too.
[[nodiscard]] bool bSwitchRun(const MessageRun& run);

/// Sets `nPacketsSwitched`.
void resetPacketsSwitchedForTest(int nPackets);
