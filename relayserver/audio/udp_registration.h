/// Registrations: by a datagram with its ticket a client says from which address it sends an audio
/// program, or where it wants to receive it. Main thread only.
///
/// The datagram is a `RelayConnectNetMessage` behind the prefix of every audio datagram, with flags
/// in the destination id of its header.
#pragma once

#include "relayserver/audio/audio_datagram.h"

/// Checks the ticket and registers its client, or answers that it is not accepted. May remove
/// clients.
void handleRegistration(const AudioDatagram& datagram);

void resetUdpRegistrationForTest();
