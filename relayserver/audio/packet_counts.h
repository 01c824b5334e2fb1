/// How much audio came from local senders. Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// Audio packets received from local senders (wraps).
extern unsigned nAudioPacketsRcvd;

/// Counts a packet of `client`, an admitted one, and confirms every 300th of a program to it. A
/// client that cannot be told is removed.
void countSourcedPacket(Orvex::RelayClient& client, unsigned nProgram);
