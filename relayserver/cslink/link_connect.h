/// The first steps of an attempt to reach a connection server: connect and TLS handshake. Functions
/// that return an int return the new stage, or -1 if the attempt failed. Main thread only.
#pragma once

/// Starts a connect to the server at the front of `serverQ`. There must be no link.
int nStartAttempt();

/// Continues after the connect: starts the TLS handshake or, without TLS, waits for the challenge.
int nFinishConnect();

/// Continues the handshake when the socket is ready.
int nStepHandshake();

/// Watches the link's socket for writability (`bForWrite`) or for input, and for nothing else.
void rewatchLink(bool bForWrite);

/// Gives up the attempt and moves on to the next server. Always returns -1.
int nFailAndSwitch();
