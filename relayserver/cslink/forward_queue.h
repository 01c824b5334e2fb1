/// What goes to the connection server, and what waits for it while the link is down.
/// Main thread only.
#pragma once

#include <memory>
#include <queue>

#include "orvex/net_message.h"

/// Messages held while the link is not finished.
extern std::queue<std::shared_ptr<Orvex::NetMessage>>& csForwardQueue;

/// The queue length above which the next "queued" line is logged; doubles with each such line.
extern unsigned queueLogPrintThreshold;

/// The last message that went out on the link, for the log when the link breaks.
extern Orvex::NetMessage nmLastSentToCS;

/// Sends `nmp` to the connection server, or queues a copy while there is none. Returns the bytes
/// sent; 0 when it was queued, or dropped because it is of a kind that is rebuilt after a
/// reconnect, or because it is too large for a frame; -1 when it could not be copied. A failed send
/// marks the link as broken: the loop takes it down, no client goes meanwhile.
int ForwardToCS(Orvex::NetMessage& nmp);

/// Sends what waits, until the first message that does not get through; returns how many are left.
int SendCSQueue();

/// Drops what waits.
void ClearCSQueue();

/// Back to the state at process start.
void resetForwardQueueForTest();
