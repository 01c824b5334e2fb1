/// The audio sockets: takes datagrams in batches, finds out whose they are and has them forwarded
/// or registered. Main thread only.
#pragma once

#include <sys/epoll.h>

/// Datagrams that are taken at once, and the most bytes of one that are forwarded.
constexpr int kMaxUdpPktsPerPoll = 1000;
constexpr int kMaxUdpPktBytes = 2048;

/// Lets the event loop wait for the audio sockets and, while `bFecEnable` holds, for their
/// companions.
void watchAudioSockets();

/// Clears the error of an audio socket, which ends nothing. False when `fd` is no audio socket.
[[nodiscard]] bool bClearAudioSocketError(int fd);

/// True when the event is one of an audio socket; up to `kMaxUdpPktsPerPoll` datagrams have been
/// handled then. May remove clients.
[[nodiscard]] bool bHandleUdpAudio(epoll_event& epe, int nIndex);

void resetUdpReceiveForTest();
