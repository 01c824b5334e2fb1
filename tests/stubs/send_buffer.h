/// Stands before the system's `sendmmsg` and `poll`, which it passes on to: counts the calls, and
/// can play a full send buffer. No datagram socket can be filled on the loopback network, where
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

/// What a send buffer that was filled is like until it is emptied.
enum class FullBuffer {
    kStaysFull,      ///< waiting for room is in vain
    kEmptiesInWait,  ///< there is room when a wait for it is over
};

/// From now on nothing can be sent: `sendmmsg` fails with `nProblem`.
void fillSendBuffer(FullBuffer behaviour, int nProblem);
void emptySendBuffer();
