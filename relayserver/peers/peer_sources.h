/// The addresses from which relay peers send audio: one look-up tells whether a datagram came from
/// a peer, however many peers and clients there are. Main thread only.
#pragma once

#include <netinet/in.h>

#include <cstddef>

#include "orvex/relay_client.h"

/// Notes the source addresses of the admitted `client` if it is a relay peer. Call after anything
/// that marks a peer or starts audio for one; stale notes are detected later.
void notePeerSources(const Orvex::RelayClient& client);

/// Whether a relay peer has `iaSource` as its source address for audio program `nProgram` (0..5).
[[nodiscard]] bool bPeerSendsFrom(in_addr iaSource, unsigned nProgram);

/// The number of notes, stale ones included.
[[nodiscard]] size_t nPeerSourceNotesForTest();

/// Back to the state at process start.
void resetPeerSourcesForTest();
