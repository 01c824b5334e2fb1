/// Orders of the connection server about other relays. Main thread only.
#pragma once

#include "genner/output/ConnectOrderNetMessage.h"

/// Carries out one order: to connect to another relay, or to register audio with one that is
/// connected, both under the ticket that the order brings. What fails is logged and ends the order.
void onConnectOrder(const Orvex::ConnectOrderNetMessage& order);
