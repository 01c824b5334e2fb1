/// The first steps of an attempt to reach a connection server: connect and TLS handshake. Each
/// returns the new stage, or -1 when the attempt failed. Main thread only.
#pragma once

/// Starts a connect to the server in front of `serverQ`; only without a link.
int nStartAttempt();

/// The connect is complete: starts the handshake, or waits for the challenge.
int nFinishConnect();

/// The socket is ready for another step of the handshake.
int nStepHandshake();

/// Watches the link's socket for room to write, or for input, and for nothing else.
void rewatchLink(bool bForWrite);

/// Gives the attempt up; the next server is tried next. Always -1.
int nFailAndSwitch();
