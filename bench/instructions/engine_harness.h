/// The engine on a stage: its event loop, and clients that this process plays itself.
#pragma once

#include <string>

/// Opens what the event loop needs.
void openEngine();

/// Logs a client in and returns its own end of the connection. Its reads wait a second at most.
[[nodiscard]] int fdAdmitClient(int nClientID);

/// Routes the messages of `nSource` in a message class to `nCount` clients from `nFirst` on, as
/// after the first look into the database.
void giveRoute(unsigned nSource, int nMsgClass, unsigned nFirst, unsigned nCount);

/// Whether exactly these bytes come next. Those of a datagram socket come in one piece.
[[nodiscard]] bool bReceives(int fd, const std::string& sExpected);

/// Waits a second at most when it is read.
void boundReads(int fd);
