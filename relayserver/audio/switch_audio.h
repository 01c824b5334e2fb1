/// Delivers audio datagrams to every client that the routes give for their source and that receives
/// their program. Main thread only.
#pragma once

/// Message class of audio routes.
constexpr int kAudioMsgClass = 64;

/// Datagrams sent by `SwitchAudioPacket` (wraps).
extern unsigned audio_packets_sent;

/// Forwards one datagram of `nLength` bytes, unchanged, from socket `fdSend`. It is sent by
/// `flushAudio` at the latest; the bytes must stay valid until then. `nFecChannel` is 0 for audio,
/// 1 and 2 for forward error correction; `nProgram` is 0..5. With `bFromRelayPeer` it is not
/// forwarded to another relay peer.
void SwitchAudioPacket(unsigned nSource, int fdSend, const char* achDatagram, int nLength,
                       bool bFromRelayPeer, int nFecChannel, int nProgram);

/// Routes the datagrams switched last: consecutive ones of one source and one length are routed
/// together. Call before anything that may change their receivers.
void routeAudio();

/// Sends all datagrams switched so far.
void flushAudio();

/// Back to the state at process start, but with `nSent` as `audio_packets_sent`.
void resetSwitchAudioForTest(unsigned nSent);
