/// Collects the datagrams to send from one audio socket, so that many leave in one system call.
/// Main thread only.
#pragma once

#include <netinet/in.h>
#include <sys/uio.h>

#include <cstddef>

/// Adds the `nCount` datagrams in `pParts`, all of one length, to the batch in this order, for the
/// receiver `siTo`. Neither the parts nor their bytes are copied or owned: they must stay valid
/// until the next flush. A change of socket or a full batch causes a flush first.
void queueDatagrams(int fdSend, const iovec* pParts, size_t nCount, const sockaddr_in& siTo);

/// Sends the queued datagrams in order. A datagram that the system refuses is lost; the others are
/// sent. Waits at most 10 ms for room in the socket buffer.
void flushDatagrams();
