/// Registrations: by a datagram with its ticket a client says from which address it sends an audio
/// program, or where it wants to receive it. Main thread only.
///
/// The datagram is a `RelayConnectNetMessage` behind the prefix of every audio datagram, with flags
/// in the destination id of its header.
#pragma once

#include <ctime>

#include "relayserver/audio/audio_datagram.h"

/// The sender wants to receive the program at the datagram's source address.
constexpr unsigned kFlagReceives = 1;
/// The sender is a relay that wants to be registered with in return.
constexpr unsigned kFlagCallback = 2;
/// The sender sends the program from the datagram's source address.
constexpr unsigned kFlagSends = 4;

/// Seconds between two rounds in which peers are registered with anew.
constexpr int kUdpReregisterPeriod = 240;

/// When relay peers were last registered with anew; at first the time of process start.
extern std::time_t ttLastUdpReregister;

/// Checks the ticket and registers its client, or answers that it is not accepted. May remove
/// clients.
void handleRegistration(const AudioDatagram& datagram);

void resetUdpRegistrationForTest();
