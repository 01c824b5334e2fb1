/// Whether video from one client may go to another, as the connection server last decided.
/// Main thread only.
#pragma once

#include <ctime>
#include <map>

namespace Tessel_Routing {

class PermissionsCache {
  public:
    /// Bits of a permission code.
    static constexpr int kDenied = 1;
    static constexpr int kGranted = 2;
    static constexpr int kPending = 4;
    /// Unknown or stale: ask again.
    static constexpr int kAskAgain = 8;

    PermissionsCache();

    /// The code of (source `a`, destination `b`) becomes exactly granted or denied, as of now.
    void Grant(int a, int b);
    void Deny(int a, int b);

    /// Notes that a request is under way: it need not be asked again for `_kPendingWait`.
    void MarkPending(int a, int b);

    /// The code of (a, b). An unknown pair is remembered with `kAskAgain`; so is a stale one, which
    /// keeps its other bits. Runs `Cleanup` when the last one is more than `_kCleanupInterval` ago.
    [[nodiscard]] int getCode(int a, int b);

    /// Forgets `id` as source and as destination; returns how many entries went: one for it as a
    /// source, whatever its destinations, and one for each source that had it as destination.
    unsigned ClearID(int id);

    /// Drops entries older than `_kCleanupInterval`.
    void Cleanup();

    /// Forgets everything.
    void Clear();

  private:
    static constexpr std::time_t _kPendingWait = 600;
    static constexpr std::time_t _kRefreshAge = 3600;
    static constexpr std::time_t _kCleanupInterval = 21600;

    struct Permission {
        int nCode = 0;
        std::time_t ttChanged = 0;
    };

    void store(int a, int b, int nCode);

    std::time_t _ttLastCleanup;
    std::map<int, std::map<int, Permission>> _storedPermissions;
};

}  // namespace Tessel_Routing
