/// Datagrams on their way out of one audio socket, gathered so that many leave in one system call.
/// Main thread only.
#pragma once

#include <netinet/in.h>
#include <sys/uio.h>

#include <cstddef>

/// Puts datagrams of one length, in this order, for one receiver into the batch. Neither the parts
/// nor their bytes are copied or owned: they must stay until the next flush. Those for another
/// socket, or one too many for a system call, flush first.
void queueDatagrams(int fdSend, const iovec* pParts, size_t nCount, const sockaddr_in& siTo);

/// Sends what is queued, in the order in which it came. A datagram that the system refuses is lost;
/// the others go out.
void flushDatagrams();
