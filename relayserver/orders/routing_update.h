/// Orders of the connection server about routes. Main thread only.
#pragma once

#include "genner/output/RoutingUpdateNetMessage.h"

/// Applies one order to the route table and forgets the cached route of its source and message
/// class, and of no other. Tells the connection server of a destination that is not here, but not
/// twice in a row of the same one. Database errors are reported by the SQL wrapper and end nothing.
void UpdateDB(const Orvex::RoutingUpdateNetMessage& runmRoutingUpdate);

/// Back to the state at process start.
void resetRoutingUpdateForTest();
