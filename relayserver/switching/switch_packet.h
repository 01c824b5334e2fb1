/// Where a message goes: to the connection server, to the one client that its header names, or to
/// every client that the routes name for its source and pipe. Main thread only.
#pragma once

#include "orvex/net_message.h"
#include "relayserver/switching/message_run.h"

/// Successful routed sends of this process (wraps).
extern int nPacketsSwitched;

/// Switches one message, unchanged. Bit 0 of `nFlags` delivers it to the destination in its header
/// whatever its type; `bFromRelayPeer` keeps it from going on to another relay. Returns false when
/// a send failed: that destination has been dropped, so look clients up again afterwards, the
/// sender included. A message too large for a frame goes nowhere and costs no destination.
bool SwitchPacket(Orvex::NetMessage* nmpMsg, int nFlags, bool bFromRelayPeer);

/// Switches messages that travel in a run, as if one after the other; an empty run is none. Returns
/// false when a send failed: that destination got what could be written before, and has been
/// dropped. Whoever owns the run's bytes must outlive the sender.
bool SwitchRun(const MessageRun& run);

void resetPacketsSwitchedForTest(int nPackets);
