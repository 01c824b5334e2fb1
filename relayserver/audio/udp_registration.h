/// Audio registrations: with a datagram that carries its ticket, a client announces the address
/// from which it sends an audio program, or at which it wants to receive it. Main thread only.
///
/// The datagram is a `RelayConnectNetMessage` after the prefix of every audio datagram, with flags
/// in the destination id of its header.
#pragma once

#include "relayserver/audio/audio_datagram.h"

/// Checks the ticket of `datagram` and registers its client, or answers that the ticket is not
/// accepted; refusals above a limit per second are neither logged nor answered. A client to
/// which the answer fails is removed.
void handleRegistration(const AudioDatagram& datagram);

/// Clears the count of refusals.
void resetUdpRegistrationForTest();
