#include "relayserver/clients/PermissionsCache.h"

#include <iterator>

#include "base/clock.h"

namespace Tessel_Routing {

PermissionsCache::PermissionsCache() : _ttLastCleanup(nowSecs()) {}

void PermissionsCache::store(int a, int b, int nCode) {
    _storedPermissions[a][b] = {nCode, nowSecs()};
}

void PermissionsCache::Grant(int a, int b) {
    store(a, b, kGranted);
}

void PermissionsCache::Deny(int a, int b) {
    store(a, b, kDenied);
}

void PermissionsCache::MarkPending(int a, int b) {
    Permission& rPermission = _storedPermissions[a][b];
    rPermission.nCode = (rPermission.nCode | kPending) & ~kAskAgain;
    rPermission.ttChanged = nowSecs();
}

int PermissionsCache::getCode(int a, int b) {
    const std::time_t ttNow = nowSecs();
    if (ttNow > _ttLastCleanup + _kCleanupInterval) {
        Cleanup();
    }
    const auto [itPermission, bNew] =
        _storedPermissions[a].try_emplace(b, Permission{kAskAgain, ttNow});
    Permission& rPermission = itPermission->second;
    const bool bStale = ttNow > rPermission.ttChanged + _kRefreshAge;
    const bool bUnanswered =
        (rPermission.nCode & kPending) != 0 && ttNow > rPermission.ttChanged + _kPendingWait;
    if (!bNew && (bStale || bUnanswered)) {
        rPermission.nCode |= kAskAgain;
    }
    return rPermission.nCode;
}

unsigned PermissionsCache::ClearID(int id) {
    auto nCleared = static_cast<unsigned>(_storedPermissions.erase(id));
    for (auto itSource = _storedPermissions.begin(); itSource != _storedPermissions.end();) {
        nCleared += static_cast<unsigned>(itSource->second.erase(id));
        itSource =
            itSource->second.empty() ? _storedPermissions.erase(itSource) : std::next(itSource);
    }
    return nCleared;
}

void PermissionsCache::Cleanup() {
    _ttLastCleanup = nowSecs();
    for (auto itSource = _storedPermissions.begin(); itSource != _storedPermissions.end();) {
        std::erase_if(itSource->second, [this](const auto& rEntry) {
            return rEntry.second.ttChanged + _kCleanupInterval < _ttLastCleanup;
        });
        itSource =
            itSource->second.empty() ? _storedPermissions.erase(itSource) : std::next(itSource);
    }
}

void PermissionsCache::Clear() {
    _storedPermissions.clear();
    _ttLastCleanup = nowSecs();
}

}  // namespace Tessel_Routing
