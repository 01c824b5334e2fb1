/// Registers this relay's audio addresses with its relay peers. Main thread only.
#pragma once

#include <ctime>

#include "orvex/relay_client.h"

/// What a registration asks for, in the destination id of its header: the sender wants to receive
/// the program at the datagram's source address; it is a relay that wants us to register in return;
/// it sends the program from the datagram's source address.
constexpr unsigned kFlagReceives = 1;
constexpr unsigned kFlagCallback = 2;
constexpr unsigned kFlagSends = 4;

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

/// Re-registers all programs with every relay peer. True unless one of them could not be.
bool ReregisterRelayPeers();
