/// A datagram that an audio socket received.
///
/// Layout: 12 zero bytes, the sender's client id (u32, host order: the marked id), then a message
/// image or, in the same place, audio, which is never looked at.
#pragma once

#include <netinet/in.h>

#include <cstddef>

constexpr size_t kDatagramPrefixBytes = 16;

/// One of the relay's audio sockets: its program 0..5, and 0 for audio or 1 and 2 for the channels
/// of forward error correction.
struct AudioSocket {
    int fd = -1;
    int nProgram = 0;
    int nFecChannel = 0;
};

/// At least `kDatagramPrefixBytes` long; the bytes belong to the receive buffers.
struct AudioDatagram {
    const AudioSocket& socket;
    const char* achBytes;
    size_t nLength;
    const sockaddr_in& siFrom;
    unsigned nMarkedID;
};
