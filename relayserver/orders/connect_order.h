/// Orders from the connection server that concern other relays. Main thread only.
#pragma once

#include "genner/output/ConnectOrderNetMessage.h"

/// Carries out one order: to connect to another relay, or to register audio with a connected one,
/// each with the ticket in the order. A failure is logged and ends the order.
void onConnectOrder(const Orvex::ConnectOrderNetMessage& order);
