/// Replaces the system's `sendmmsg` and `poll`, to which it forwards: counts the calls, and can
/// simulate a full send buffer. On the loopback network no datagram socket can be filled, because
/// what is sent leaves the buffer at once.
#pragma once

#include <cstddef>

/// How often `sendmmsg` and `poll` were called in this process.
std::size_t nSendCalls();
std::size_t nPolls();

/// The time-out of the last `poll`, in milliseconds.
int nMillisOfLastPoll();

/// How many messages `sendmmsg` was given in all; one may stand for several datagrams.
std::size_t nMessagesSent();

/// How a full send buffer behaves until it is emptied.
enum class FullBuffer {
    kStaysFull,      ///< a wait for room times out
    kEmptiesInWait,  ///< there is room when a wait for it is over
};

/// From now on nothing can be sent: `sendmmsg` fails with errno `nProblem`.
void fillSendBuffer(FullBuffer behaviour, int nProblem);
/// Makes room again.
void emptySendBuffer();
