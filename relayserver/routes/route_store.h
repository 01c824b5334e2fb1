/// The routes: table `iopatch` of the database, and the cache in front of it. Main thread only.
///
/// Database errors are reported by the SQL wrapper and are not fatal: a statement that failed has
/// no effect and a query that failed gives no rows.
#pragma once

#include <memory>

#include "relayserver/routes/RoutingCache.h"

/// Deletes every route, from table and cache.
void DBCleanup();

/// Adds the route from `nFromID` to `nToID` to the table. The cache does not show it until
/// `forgetRoute`.
void insertRoute(unsigned nFromID, unsigned nToID, int nMsgClass);

/// Deletes a route from the table; an id of 0 stands for every client. When no route of `nToID` is
/// left, its losses are confirmed. The cache keeps the route until `forgetRoute`.
void deleteRoute(unsigned nFromID, unsigned nToID, int nMsgClass);

/// Forgets the cached route of (source, message class): the next message reads the table.
void forgetRoute(unsigned nSource, int nMsgClass);

/// The route of (source, message class): from the cache, or read from the table and cached; empty
/// if the query failed. Never null. On a miss `sTypeText` names the class in the log line; null for
/// its number.
std::shared_ptr<const Tessel_Routing::RouteEntry> findRoute(unsigned nSource, int nMsgClass,
                                                            const char* sTypeText = nullptr);

/// Empties the cache.
void resetRouteStoreForTest();
