/// Datagrams on their way out of one audio socket, gathered so that many leave in one system call.
/// Main thread only.
#pragma once

#include <netinet/in.h>

#include <cstddef>

/// Puts a datagram into the batch. Its bytes are neither copied nor owned: they must stay until the
/// next flush. One for another socket, or one too many for a system call, flushes first.
void queueDatagram(int fdSend, const char* achDatagram, size_t nLength, const sockaddr_in& siTo);

/// Sends what is queued, in the order in which it came. A datagram that the system refuses is lost;
/// the others go out.
void flushDatagrams();
