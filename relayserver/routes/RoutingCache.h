/// Caches the routes read from the route table, so that switching a message queries the database
/// only on a miss. Main thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "orvex/relay_client_table.h"

namespace Tessel_Routing {

/// One cached route: everything that `GetClientFrom` sends as `GetMessageType` goes to
/// `GetClientsTo`.
class RouteEntry {
  public:
    RouteEntry() = default;
    /// `clientsTo` in the order in which the database returned them.
    RouteEntry(unsigned clientFrom, int msgType, std::vector<unsigned> clientsTo);

    [[nodiscard]] int GetClientFrom() const { return _clientFrom; }
    [[nodiscard]] int GetMessageType() const { return _msgType; }
    /// A copy of the destinations, in the order in which the database returned them.
    [[nodiscard]] std::vector<unsigned> GetClientsTo() const { return _clientsTo; }
    /// The destinations themselves, valid as long as this entry.
    [[nodiscard]] const std::vector<unsigned>& clientsTo() const { return _clientsTo; }

    /// The record of the `i`th destination in `table`, null if it is not there; always pass the
    /// same table. Costs a look-up only after the table has changed.
    [[nodiscard]] Orvex::RelayClient* find(size_t i, const Orvex::RelayClientTable& table) const {
        return table.findAgain(static_cast<int>(_clientsTo[i]), _found[i]);
    }

  private:
    int _clientFrom = 0;
    int _msgType = 0;
    std::vector<unsigned> _clientsTo;
    mutable std::vector<Orvex::FoundClient> _found;  ///< of each destination
};

/// Cached routes by source and message type.
class RoutingCache {
  public:
    /// The process-wide cache, made on first use and never destroyed.
    static RoutingCache* Instance();

    /// Forgets every route.
    void Clear();

    /// Stores `re` under its source and type in place of any entry there.
    void Add(RouteEntry re);

    /// Forgets the entry under the source and type of `re`, if there is one; its destinations are
    /// not looked at.
    void Remove(const RouteEntry& re);

    /// On a hit puts the destinations into `destIDs`; on a miss leaves it as it was. A route
    /// without destinations is a hit.
    [[nodiscard]] bool CacheHit(unsigned source, int type, std::vector<unsigned>& destIDs) const;

    /// The entry of (source, type), or null on a miss. The caller may walk it even if a routing
    /// update removes it meanwhile. Allocates nothing.
    [[nodiscard]] std::shared_ptr<const RouteEntry> find(unsigned source, int type) const;

    /// The number of cached routes.
    [[nodiscard]] size_t size() const { return _cache.size(); }

    /// More routes than any real network has. When it is reached the cache is emptied: a peer that
    /// invents sender ids must not fill the memory.
    static constexpr size_t kMaxEntries = 1U << 18U;

  private:
    std::unordered_map<std::uint64_t, std::shared_ptr<const RouteEntry>> _cache;
};

}  // namespace Tessel_Routing
