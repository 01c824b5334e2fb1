/// Sockets on the loopback network for tests that need a real listener.
#pragma once

#include <netinet/in.h>

#include <string>

/// A non-blocking TCP listener on 127.0.0.1 with a port of the system's choice; its descriptor.
int nOpenLoopbackListener();

/// The port that `fd` is bound to.
int nLocalPort(int fd);

/// A TCP connection from `sFrom` (an address of 127.0.0.0/8) to 127.0.0.1:`nPort`; its descriptor,
/// -1 on failure.
int nConnectLoopback(int nPort, const std::string& sFrom = "127.0.0.1");

/// Whether `fd` becomes readable within some seconds.
bool bWaitReadable(int fd);
