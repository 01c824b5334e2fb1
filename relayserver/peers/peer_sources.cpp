#include "relayserver/peers/peer_sources.h"

#include <cstdint>
#include <unordered_map>

#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/peer_mark.h"

using Orvex::RelayClient;

namespace {

/// The clients noted under one address and program: descriptor by serial number.
using NotedPeers = std::unordered_map<std::uint64_t, int>;

/// By address and program. Notes may be stale, and are checked when they are used.
std::unordered_map<std::uint64_t, NotedPeers>& notes =
    *new std::unordered_map<std::uint64_t, NotedPeers>;
size_t nNotes = 0;

std::uint64_t keyOf(in_addr iaSource, unsigned nProgram) {
    return (static_cast<std::uint64_t>(nProgram) << 32U) | iaSource.s_addr;
}

in_addr sourceAddressOf(const RelayClient& client, unsigned nProgram) {
    sockaddr_in siSource{};
    client.GetAudioSrcAddress(nProgram, siSource);
    return siSource.sin_addr;
}

[[nodiscard]] bool bStillValid(std::uint64_t nKey, int fd, std::uint64_t nSerial) {
    const RelayClient* const pPeer = ctAuthClientTable.findBySerial(fd, nSerial);
    if (pPeer == nullptr || !bIsRelayPeer(*pPeer)) {
        return false;
    }
    const auto nProgram = static_cast<unsigned>(nKey >> 32U);
    return keyOf(sourceAddressOf(*pPeer, nProgram), nProgram) == nKey;
}

/// Notes of departed peers must not accumulate.
void sweepWhenMostlyStale() {
    constexpr size_t kAlwaysAllowed = 1024;
    constexpr size_t kAllowedPerClient = 2UL * RelayClient::kAudioPrograms;
    const auto nClients = static_cast<size_t>(ctAuthClientTable.GetSize());
    if (nNotes <= kAlwaysAllowed + kAllowedPerClient * nClients) {
        return;
    }
    nNotes = 0;
    for (auto itNote = notes.begin(); itNote != notes.end();) {
        const std::uint64_t nKey = itNote->first;
        std::erase_if(itNote->second, [nKey](const auto& noted) {
            return !bStillValid(nKey, noted.second, noted.first);
        });
        nNotes += itNote->second.size();
        itNote = itNote->second.empty() ? notes.erase(itNote) : std::next(itNote);
    }
}

}  // namespace

void notePeerSources(const RelayClient& client) {
    if (!bIsRelayPeer(client)) {
        return;
    }
    const int fd = client.GetMessageSocket()->getMsgSockFileDesc();
    for (unsigned nProgram = 0; nProgram < RelayClient::kAudioPrograms; ++nProgram) {
        const in_addr iaSource = sourceAddressOf(client, nProgram);
        if (iaSource.s_addr != INADDR_ANY) {
            nNotes += notes[keyOf(iaSource, nProgram)].emplace(client.nSerial(), fd).second ? 1 : 0;
        }
    }
    sweepWhenMostlyStale();
}

bool bPeerSendsFrom(in_addr iaSource, unsigned nProgram) {
    const std::uint64_t nKey = keyOf(iaSource, nProgram);
    const auto itNote = notes.find(nKey);
    if (itNote == notes.end()) {
        return false;
    }
    NotedPeers& peers = itNote->second;
    for (auto itPeer = peers.begin(); itPeer != peers.end(); itPeer = peers.erase(itPeer)) {
        if (bStillValid(nKey, itPeer->second, itPeer->first)) {
            return true;
        }
        --nNotes;
    }
    notes.erase(itNote);
    return false;
}

size_t nPeerSourceNotesForTest() {
    size_t nCount = 0;
    for (const auto& noted : notes) {
        nCount += noted.second.size();
    }
    return nCount;
}

void resetPeerSourcesForTest() {
    notes.clear();
    nNotes = 0;
}
