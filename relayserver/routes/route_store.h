/// The routes: table `iopatch` of the database, and the cache in front of it. Main thread only.
///
/// Database errors are reported by the SQL wrapper and end nothing: a statement that failed has no
/// effect and a query that failed gives no rows.
#pragma once

#include <memory>

#include "genner/output/RoutingUpdateNetMessage.h"
#include "relayserver/routes/RoutingCache.h"

/// Deletes every route, from table and cache.
void DBCleanup();

/// Applies one order of the connection server to the table, and forgets the cached route of its
/// source and message class. May tell the connection server of a destination that is not here.
void UpdateDB(const Orvex::RoutingUpdateNetMessage& runmRoutingUpdate);

/// The route of (source, message class): from the cache, or read from the table and cached, empty
/// if the query failed. On a miss `sTypeText` names the class in the log line. Never null.
std::shared_ptr<const Tessel_Routing::RouteEntry> findRoute(unsigned nSource, int nMsgClass,
                                                            const char* sTypeText = nullptr);

void resetRouteStoreForTest();
