/// A harness for the engine: its event loop, and clients that this process plays itself.
#pragma once

#include <string>

/// Opens what the event loop needs.
void openEngine();

/// Logs a client in and returns the client's end of the connection. Its reads wait at most a
/// second.
[[nodiscard]] int fdAdmitClient(int nClientID);

/// Routes the messages of `nSource` in a message class to `nCount` clients from `nFirst` on, as
/// after the first database look-up.
void addRoute(unsigned nSource, int nMsgClass, unsigned nFirst, unsigned nCount);

/// Whether exactly these bytes arrive next; on a datagram socket, in one datagram.
[[nodiscard]] bool bReceives(int fd, const std::string& sExpected);

/// Limits reads from this descriptor to a wait of a second.
void boundReads(int fd);
