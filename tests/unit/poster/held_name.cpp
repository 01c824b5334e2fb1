#include "tests/unit/poster/held_name.h"

#include <dlfcn.h>
#include <netdb.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>

namespace {

std::mutex mutex;
std::condition_variable cvChanged;
/// Both guarded by `mutex`.
bool bHeld = false;
int nPending = 0;

int nHold() {
    constexpr std::chrono::seconds kAtMost{10};  // so that a failing test ends as well
    std::unique_lock<std::mutex> lock(mutex);
    ++nPending;
    cvChanged.wait_for(lock, kAtMost, [] { return !bHeld; });
    --nPending;
    cvChanged.notify_all();
    return EAI_NONAME;
}

}  // namespace

HeldName::HeldName() {
    const std::lock_guard<std::mutex> lock(mutex);
    bHeld = true;
}

HeldName::~HeldName() {
    std::unique_lock<std::mutex> lock(mutex);
    bHeld = false;
    cvChanged.notify_all();
    cvChanged.wait(lock, [] { return nPending == 0; });
}

bool HeldName::bIsLookedUp() {
    const std::lock_guard<std::mutex> lock(mutex);
    return nPending > 0;
}

extern "C" int getaddrinfo(const char* sName, const char* sService, const addrinfo* pHints,
                           addrinfo** ppResult) {
    using getaddrinfo_t = decltype(&getaddrinfo);
    static const auto pSystems = reinterpret_cast<getaddrinfo_t>(dlsym(RTLD_NEXT, "getaddrinfo"));
    if (sName != nullptr && std::strcmp(sName, HeldName::kHost) == 0) {
        return nHold();
    }
    return pSystems(sName, sService, pHints, ppResult);
}
