/// Orders from the connection server that change routes. Main thread only.
#pragma once

#include "genner/output/RoutingUpdateNetMessage.h"

/// Applies one order to the route table and forgets the cached route of its source and message
/// class, and no other. Reports a destination that is not connected here to the connection server,
/// but the same one not twice in a row. Database errors are reported by the SQL wrapper and are not
/// fatal.
void UpdateDB(const Orvex::RoutingUpdateNetMessage& runmRoutingUpdate);

/// Back to the state at process start.
void resetRoutingUpdateForTest();
