/// A datagram received on an audio socket.
///
/// Layout: 12 zero bytes, the sender's client id (u32, host byte order: the marked id), then either
/// a message image or audio, which is never inspected.
#pragma once

#include <netinet/in.h>

#include <cstddef>

/// The zero bytes and the marked id.
constexpr size_t kDatagramPrefixBytes = 16;

/// One of the relay's audio sockets: its program (0..5) and channel, which is 0 for audio and 1 or
/// 2 for forward error correction.
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
    /// Host byte order.
    unsigned nMarkedID;
};
