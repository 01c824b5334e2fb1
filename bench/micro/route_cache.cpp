/// The cost of finding a cached route among others.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "relayserver/routes/RoutingCache.h"

using Tessel_Routing::RouteEntry;
using Tessel_Routing::RoutingCache;

namespace {

constexpr unsigned kFirstSource = 100001;
constexpr int kCaptionPipe = 192;
constexpr std::size_t kReceivers = 10;

void hitRoute(benchmark::State& rState) {
    RoutingCache cache;
    std::vector<unsigned> sources;
    for (unsigned i = 0; i < static_cast<unsigned>(rState.range(0)); ++i) {
        sources.push_back(kFirstSource + i);
        cache.Add(RouteEntry(sources.back(), kCaptionPipe, std::vector<unsigned>(kReceivers, i)));
    }
    std::shuffle(sources.begin(), sources.end(), std::mt19937());
    for (auto _ : rState) {
        std::size_t nReceivers = 0;
        for (const unsigned nSource : sources) {
            nReceivers += cache.find(nSource, kCaptionPipe)->clientsTo().size();
        }
        if (nReceivers != kReceivers * sources.size()) {
            rState.SkipWithError("a route has other destinations");
        }
    }
    rState.SetItemsProcessed(rState.iterations() * static_cast<std::int64_t>(sources.size()));
}

BENCHMARK(hitRoute)->ArgName("routes")->Arg(10)->Arg(1000)->Arg(8000);

}  // namespace
