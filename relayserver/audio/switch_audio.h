/// Where an audio datagram goes: to every client that the routes name for its source and that
/// receives its program. Main thread only.
#pragma once

/// Message class of audio routes.
constexpr int kAudioMsgClass = 64;

/// Datagrams sent by `SwitchAudioPacket` (wraps).
extern unsigned audio_packets_sent;

/// Forwards one datagram, unchanged, from socket `fdSend`: nothing leaves before `flushAudio`, and
/// the bytes must stay until then. `nFecChannel` is 0 for audio, 1 and 2 for forward error
/// correction; `nProgram` is 0..5. What came from a relay peer does not go on to another one.
void SwitchAudioPacket(unsigned nSource, int fdSend, const char* achDatagram, int nLength,
                       bool bFromRelayPeer, int nFecChannel, int nProgram);

/// Finds the receivers of what was switched last. Before anything that may change who they are:
/// datagrams of one source and one length that follow each other are routed together.
void routeAudio();

/// Sends all that was switched.
void flushAudio();

void resetSwitchAudioForTest(unsigned nSent);
