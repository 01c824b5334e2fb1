/// Messages to the connection server, and the queue that holds them while the link is down.
/// Main thread only.
#pragma once

#include <memory>
#include <queue>

#include "orvex/net_message.h"

/// Messages held while the relay is not logged in.
extern std::queue<std::shared_ptr<Orvex::NetMessage>>& csForwardQueue;

/// The queue length above which the next "queued" line is logged; doubles with each such line.
extern unsigned queueLogPrintThreshold;

/// The last message handed to the link; logged when the link breaks.
extern Orvex::NetMessage nmLastSentToCS;

/// Sends `nmp` to the connection server, or queues a copy while the relay is not logged in. Returns
/// the number of bytes sent; 0 if it was queued, or dropped because its type is rebuilt after a
/// reconnect or it is too large for a frame; -1 if it could not be copied. A failed send marks the
/// link as broken, for the event loop to take down; no client is removed.
int ForwardToCS(Orvex::NetMessage& nmp);

/// Sends the queued messages, up to the first that fails; returns how many are left.
int SendCSQueue();

/// Discards the queued messages.
void ClearCSQueue();

/// Back to the state at process start.
void resetForwardQueueForTest();
