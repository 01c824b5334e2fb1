/// One TCP connection, plain or TLS, as a stream of message frames (see input_buffer.h).
///
/// A socket owns neither its descriptor nor its TLS session: copies share both, and closing them
/// is the job of whoever removes the connection. Event-loop thread only.
#pragma once

#include <netinet/in.h>
#include <openssl/ssl.h>

#include <string>

#include "orvex/input_buffer.h"

namespace Orvex {

class RelayMessageSocket {
  public:
    /// Bytes after which one draining read stops, so that a busy peer cannot hold the loop.
    static constexpr int kNonBlockingReadMax = 1024;
    /// TLS records that one burst takes at most: a peer that sends them with a byte in each cannot
    /// hold the loop.
    static constexpr int kBurstReadsMax = 256;
    /// Bytes that are held at most, but for bursts: ten frames of the largest size.
    static constexpr int kReadBufferSize = 5090;
    /// Largest image that a frame can carry; the room `bDequeueNetMessage` needs.
    static constexpr int kMaxFrameImage = 509;

    /// No connection: descriptor -1, zero address, empty buffer.
    RelayMessageSocket();
    /// A plain connection to `address`.
    RelayMessageSocket(int fd, sockaddr_in address);
    /// A TLS connection; with a null `ssl` the same as a plain one.
    RelayMessageSocket(int fd, sockaddr_in address, SSL* ssl);

    void GetAddress(sockaddr_in& address) const { address = siAddress; }
    void GetMsgSockFileDesc(int& fd) const { fd = sckMsgSockFileDesc; }
    [[nodiscard]] int getMsgSockFileDesc() const { return sckMsgSockFileDesc; }
    [[nodiscard]] bool bUseSSL() const { return pSSL != nullptr; }
    [[nodiscard]] SSL* getSSLPtr() const { return pSSL; }

    /// Text of the last read or write failure; empty when there was none.
    [[nodiscard]] const std::string& getErrorString() const { return _lastErrorString; }

    /// Whether the descriptor is readable now; works for any descriptor number. A check that
    /// fails leaves "select failed with code %d" as error text and is false.
    [[nodiscard]] bool bCheckSocket();

    /// One read into the buffer, after a readiness check unless `bBlockNotCheck`. Returns the
    /// bytes read, 0 at end of stream (or: nothing to read, or: buffer full), negative on error;
    /// leaves no error text.
    [[nodiscard]] int nReadSocket(bool bBlockNotCheck);

    /// Drains the non-blocking descriptor into the buffer until nothing waits, the buffer is full
    /// or `kNonBlockingReadMax` bytes came. Returns the bytes read, 0 included, or -1 at end of
    /// stream or on error with the reason in `getErrorString`. Frames that came before an end of
    /// stream are in the buffer even then: dequeue them before dropping the connection.
    [[nodiscard]] int nReadNonBlockingSocket();

    /// The same for a sender whose messages are many: reads up to `InputBuffer::kBlockSize` bytes
    /// at once. Does not ask whether there are more, or an end: that has an event of its own. A
    /// TLS session reads ahead from then on.
    [[nodiscard]] int nReadBurst();

    /// Takes the oldest complete image out of the buffer into `chpOutNetMsg` (room for
    /// `kMaxFrameImage` bytes required) and stores its length. False when no frame is complete.
    [[nodiscard]] bool bDequeueNetMessage(char* chpOutNetMsg, int* nrOutNetMsgLen);

    /// What was read and not dequeued yet. Whoever has to keep it while this socket may go takes it
    /// out and puts it back.
    [[nodiscard]] InputBuffer& input() { return inputBuffer; }

    /// Whether work waits that no readiness event will announce: bytes already inside the TLS
    /// session, or a complete frame or a zero length byte in the buffer.
    [[nodiscard]] bool bHasMoreInput() const;

    /// Writes `n` bytes to descriptor `f` through this socket's TLS session, if it has one. Waits
    /// for room at most the given time before each part; no wait and one system call when there
    /// is room. Returns `n`, fewer after a time-out, or -1 on failure; a TLS failure leaves its
    /// reason in `getErrorString`. Never raises SIGPIPE.
    [[nodiscard]] int write_n_with_timeout(int f, const void* addr, int n, int timeoutSecs,
                                           int timeoutMicroSecs);

    /// What the last call of that has written, also if it failed.
    [[nodiscard]] int nLastWritten() const { return nWrittenLast; }

  private:
    [[nodiscard]] int nReadSome(int nRoom);
    [[nodiscard]] bool bGoOnAfterFailedRead(int nResult);
    [[nodiscard]] bool bKnownNonBlocking(int f);

    int sckMsgSockFileDesc;         ///< -1 when none
    sockaddr_in siAddress;          ///< the peer, as accepted or connected
    SSL* pSSL;                      ///< null for a plain connection; not owned
    bool bSeenNonBlocking = false;  ///< O_NONBLOCK was seen on the descriptor, which keeps it
    /// The last burst ended at one of its limits: the session may hold records. It may also hold
    /// the beginning of one, which is no reason to come back, so that only a read can tell.
    bool bBurstCutShort = false;
    int nWrittenLast = 0;
    std::string _lastErrorString;
    InputBuffer inputBuffer;
};

}  // namespace Orvex
