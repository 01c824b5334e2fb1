/// From which addresses relay peers send audio: a datagram finds out whether it came from a peer in
/// the time of one look-up, however many peers and clients there are. Main thread only.
#pragma once

#include <netinet/in.h>

#include <cstddef>

#include "orvex/relay_client.h"

/// Takes note of where `client`, an admitted one, sends from, if it is a relay peer. Call after
/// anything that marks a peer or starts audio for one; what no longer holds is found out later.
void notePeerSources(const Orvex::RelayClient& client);

/// Whether some relay peer has `iaSource` as its source address for audio program `nProgram`.
[[nodiscard]] bool bPeerSendsFrom(in_addr iaSource, unsigned nProgram);

/// How many notes are kept, those that hold no longer included.
size_t nPeerSourceNotesForTest();

void resetPeerSourcesForTest();
