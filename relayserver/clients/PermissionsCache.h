/// Whether video from one client may go to another, as the connection server last decided.
/// Main thread only.
#pragma once

#include <ctime>
#include <map>

namespace Tessel_Routing {

/// Permissions by (source, destination).
class PermissionsCache {
  public:
    /// Bits of a permission code.
    static constexpr int kDenied = 1;
    static constexpr int kGranted = 2;
    static constexpr int kPending = 4;
    /// Unknown or stale: ask again.
    static constexpr int kAskAgain = 8;

    /// Starts empty.
    PermissionsCache();

    /// The code of (source `a`, destination `b`) becomes exactly granted or denied, as of now.
    void Grant(int a, int b);
    void Deny(int a, int b);

    /// Notes that a request is pending: it need not be repeated for `_kPendingWait` seconds.
    void MarkPending(int a, int b);

    /// The code of (a, b). An unknown pair is stored with `kAskAgain`; a stale one gets that bit
    /// and keeps its others. Runs `Cleanup` if the last one was more than `_kCleanupInterval`
    /// seconds ago.
    [[nodiscard]] int getCode(int a, int b);

    /// Forgets `id` as source and as destination. Returns the number of entries removed: one for it
    /// as a source, however many destinations it has, and one for each source that has it as a
    /// destination.
    unsigned ClearID(int id);

    /// Drops entries older than `_kCleanupInterval` seconds.
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
