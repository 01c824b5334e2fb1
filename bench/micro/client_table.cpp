/// The cost of finding a client among others, by its id and by its descriptor.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <random>
#include <vector>

#include "orvex/relay_client_table.h"

using Orvex::RelayClient;
using Orvex::RelayClientTable;
using Orvex::RelayMessageSocket;

namespace {

constexpr int kFirstID = 100001;
/// Ids are assigned to users, few of whom are connected.
constexpr int kIDStep = 7;
constexpr int kFirstFileDesc = 10;

void fill(RelayClientTable& rTable, int nClients) {
    for (int i = 0; i < nClients; ++i) {
        RelayClient client{RelayMessageSocket(kFirstFileDesc + i, sockaddr_in{})};
        client.SetClientID(kFirstID + kIDStep * i);
        rTable.Add(client);
    }
}

/// `nCount` keys in a shuffled order, the same in every run.
std::vector<int> shuffledKeys(int nFirst, int nStep, int nCount) {
    std::vector<int> keys;
    for (int i = 0; i < nCount; ++i) {
        keys.push_back(nFirst + nStep * i);
    }
    std::shuffle(keys.begin(), keys.end(), std::mt19937());
    return keys;
}

/// Looks up every key in turn; `bFind` is one of the table's look-ups.
void findAll(benchmark::State& rState, const RelayClientTable& table, const std::vector<int>& keys,
             bool (RelayClientTable::*bFind)(int, RelayClient**) const) {
    for (auto _ : rState) {
        bool bAllFound = true;
        for (const int nKey : keys) {
            RelayClient* pClient = nullptr;
            bAllFound = (table.*bFind)(nKey, &pClient) && bAllFound;
            benchmark::DoNotOptimize(pClient);
        }
        if (!bAllFound) {
            rState.SkipWithError("a client was not found");
        }
    }
    rState.SetItemsProcessed(rState.iterations() * static_cast<std::int64_t>(keys.size()));
}

void findByID(benchmark::State& rState) {
    const auto nClients = static_cast<int>(rState.range(0));
    RelayClientTable table;
    fill(table, nClients);
    findAll(rState, table, shuffledKeys(kFirstID, kIDStep, nClients), &RelayClientTable::bLookUp);
}

void findByFileDesc(benchmark::State& rState) {
    const auto nClients = static_cast<int>(rState.range(0));
    RelayClientTable table;
    fill(table, nClients);
    findAll(rState, table, shuffledKeys(kFirstFileDesc, 1, nClients),
            &RelayClientTable::bFileDescLookUp);
}

BENCHMARK(findByID)->ArgName("clients")->Arg(10)->Arg(1000)->Arg(8000);
BENCHMARK(findByFileDesc)->ArgName("clients")->Arg(10)->Arg(1000)->Arg(8000);

}  // namespace
