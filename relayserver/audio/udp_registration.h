/// Registrations: by a datagram with its ticket a client says from which address it sends an audio
/// program, or where it wants to receive it. Main thread only.
///
/// The datagram is a `RelayConnectNetMessage` behind the prefix of every audio datagram. Flags, in
/// the destination id of its header: 1 the sender wants to receive the program at the datagram's
/// source address, 2 it is a relay that wants to be registered with in return, 4 it sends the
/// program from there.
#pragma once

#include <ctime>

#include "relayserver/audio/audio_datagram.h"

/// Seconds between two rounds in which peers are registered with anew.
constexpr int kUdpReregisterPeriod = 240;

/// When relay peers were last registered with anew; at first the time of process start.
extern std::time_t ttLastUdpReregister;

/// Checks the ticket and registers its client, or answers that it is not accepted. May remove
/// clients.
void handleRegistration(const AudioDatagram& datagram);

void resetUdpRegistrationForTest();
