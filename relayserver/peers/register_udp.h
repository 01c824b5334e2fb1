/// Registers this relay's audio addresses with its relay peers. Main thread only.
#pragma once

#include <ctime>

#include "orvex/relay_client.h"

/// Flags of a registration, in the destination id of its header. The sender wants to receive the
/// program at the datagram's source address.
constexpr unsigned kFlagReceives = 1;
/// The sender is a relay that wants us to register in return.
constexpr unsigned kFlagCallback = 2;
/// The sender sends the program from the datagram's source address.
constexpr unsigned kFlagSends = 4;

/// Seconds for which a stored ticket is used.
constexpr int kTicketUsableSecs = 299;
/// Minimum number of seconds between two requests for a ticket for one peer.
constexpr int kTicketRequestSecs = 6;

/// All programs, where one may be specified.
constexpr int kAllPrograms = -1;

/// Registers this relay with the admitted `otherRelay`, by datagrams with the stored ticket for it,
/// as a receiver (`rx`) and a sender (`tx`) of audio; `callback` asks the peer to register in
/// return. `specificProgram` is 0..5 or `kAllPrograms`. Without a usable ticket, requests one from
/// the connection server, whose order then triggers the registration. Always returns 1.
int RegisterUdp(Orvex::RelayClient& otherRelay, bool rx, bool tx, bool callback,
                int specificProgram);

/// Retries registrations that were refused, or not sent because a ticket had just been requested;
/// only a few times, since peers limit registrations.
void retryOwedRegistrations(std::time_t ttNow);

/// Re-registers all programs with every relay peer. False if one of them could not be registered.
bool ReregisterRelayPeers();
