/// The cost of checking whether video from one client may go to another.
#include <benchmark/benchmark.h>

#include "relayserver/clients/PermissionsCache.h"

using Tessel_Routing::PermissionsCache;

namespace {

constexpr int kFirstSource = 100001;
constexpr int kFirstReceiver = 200001;
constexpr int kReceivers = 10;

void checkPermission(benchmark::State& rState) {
    const auto nSources = static_cast<int>(rState.range(0));
    PermissionsCache permissions;
    for (int i = 0; i < nSources * kReceivers; ++i) {
        permissions.Grant(kFirstSource + i / kReceivers, kFirstReceiver + i);
    }
    for (auto _ : rState) {
        bool bAllGranted = true;
        for (int i = 0; i < nSources * kReceivers; ++i) {
            bAllGranted = permissions.getCode(kFirstSource + i / kReceivers, kFirstReceiver + i) ==
                              PermissionsCache::kGranted &&
                          bAllGranted;
        }
        if (!bAllGranted) {
            rState.SkipWithError("a permission has changed");
        }
    }
    rState.SetItemsProcessed(rState.iterations() * nSources * kReceivers);
}

BENCHMARK(checkPermission)->ArgName("sources")->Arg(10)->Arg(1000);

}  // namespace
