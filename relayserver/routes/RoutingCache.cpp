#include "relayserver/routes/RoutingCache.h"

#include <utility>

namespace Tessel_Routing {

namespace {

std::uint64_t keyOf(unsigned nSource, int nType) {
    return (static_cast<std::uint64_t>(nSource) << 32U) | static_cast<std::uint32_t>(nType);
}

std::uint64_t keyOf(const RouteEntry& re) {
    return keyOf(static_cast<unsigned>(re.GetClientFrom()), re.GetMessageType());
}

}  // namespace

RouteEntry::RouteEntry(unsigned clientFrom, int msgType, std::vector<unsigned> clientsTo)
    : _clientFrom(static_cast<int>(clientFrom)),
      _msgType(msgType),
      _clientsTo(std::move(clientsTo)),
      _found(_clientsTo.size()) {}

RoutingCache* RoutingCache::Instance() {
    static RoutingCache* const _instance = new RoutingCache;
    return _instance;
}

void RoutingCache::Clear() {
    _cache.clear();
}

void RoutingCache::Add(RouteEntry re) {
    if (_cache.size() >= kMaxEntries) {
        Clear();
    }
    const std::uint64_t nKey = keyOf(re);
    _cache[nKey] = std::make_shared<const RouteEntry>(std::move(re));
}

void RoutingCache::Remove(const RouteEntry& re) {
    _cache.erase(keyOf(re));
}

bool RoutingCache::CacheHit(unsigned source, int type, std::vector<unsigned>& destIDs) const {
    const auto itEntry = _cache.find(keyOf(source, type));
    if (itEntry == _cache.end()) {
        return false;
    }
    destIDs = itEntry->second->clientsTo();
    return true;
}

std::shared_ptr<const RouteEntry> RoutingCache::find(unsigned source, int type) const {
    const auto itEntry = _cache.find(keyOf(source, type));
    return itEntry == _cache.end() ? nullptr : itEntry->second;
}

}  // namespace Tessel_Routing
