/// Registers this relay's audio addresses with its relay peers. Main thread only.
#pragma once

#include <ctime>

#include "orvex/relay_client.h"

/// Seconds for which a stored ticket is used.
constexpr int kTicketUsableSecs = 299;
/// Seconds between two requests for a ticket to one peer.
constexpr int kTicketRequestSecs = 6;

/// In place of a program.
constexpr int kAllPrograms = -1;

/// Tells `otherRelay`, an admitted one, by datagrams under its stored ticket that this relay
/// receives
/// (`rx`) and sends (`tx`) audio, and with `callback` asks it to register in return; for one
/// program (0..5), or for `kAllPrograms`. Without a usable ticket asks the connection server for
/// one, whose order then brings the registration about. Returns 1.
int RegisterUdp(Orvex::RelayClient& otherRelay, bool rx, bool tx, bool callback,
                int specificProgram);

/// Tries again where a registration was refused or could not be sent while a ticket had just been
/// requested: a few times, since a peer lets only so many through at a time.
void retryOwedRegistrations(std::time_t ttNow);
