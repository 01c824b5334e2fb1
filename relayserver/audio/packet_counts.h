/// Counts the audio received from local senders. Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// Audio packets received from local senders (wraps).
extern unsigned nAudioPacketsRcvd;

/// Counts a packet of program `nProgram` (0..5) from the admitted `client`, and confirms every
/// 300th packet of a program to it. Removes the client if that send fails.
void countSourcedPacket(Orvex::RelayClient& client, unsigned nProgram);
