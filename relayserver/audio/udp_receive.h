/// Receives datagrams on the audio sockets in batches, identifies their senders, and has them
/// forwarded or registered. Main thread only.
#pragma once

#include <sys/epoll.h>

/// The most datagrams received in one batch, and the most bytes of a datagram that is forwarded.
constexpr int kMaxUdpPktsPerPoll = 1000;
constexpr int kMaxUdpPktBytes = 2048;

/// Makes the audio sockets and, if `bFecEnable` is set, the FEC sockets non-blocking and adds them
/// to the epoll set.
void watchAudioSockets();

/// Clears and logs the error of an audio socket, which stays open. False if `fd` is not an audio
/// socket.
[[nodiscard]] bool bClearAudioSocketError(int fd);

/// Handles up to `kMaxUdpPktsPerPoll` datagrams if the event belongs to an audio socket; false if
/// it does not. `nIndex` is not used. A client to which an answer fails is
/// removed.
[[nodiscard]] bool bHandleUdpAudio(epoll_event& epe, int nIndex);

/// Back to the state at process start.
void resetUdpReceiveForTest();
