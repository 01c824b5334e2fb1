/// One TCP connection, plain or TLS, as a stream of message frames (see input_buffer.h).
///
/// A socket does not own its descriptor and its TLS session: copies share both, and the code that
/// removes the connection closes them. Main thread only.
#pragma once

#include <netinet/in.h>
#include <openssl/ssl.h>

#include <string>

#include "orvex/input_buffer.h"

namespace Orvex {

class RelayMessageSocket {
  public:
    /// Bytes after which one draining read stops, so that a busy peer cannot block the loop.
    static constexpr int kNonBlockingReadMax = 1024;
    /// The most TLS records that one burst reads: a peer that sends records of one byte cannot
    /// block the loop.
    static constexpr int kBurstReadsMax = 256;
    /// The most bytes held, except by bursts: ten frames of the largest size.
    static constexpr int kReadBufferSize = 5090;
    /// The largest image that a frame can carry; the room that `bDequeueNetMessage` needs.
    static constexpr int kMaxFrameImage = 509;

    /// No connection: descriptor -1, zero address, empty buffer.
    RelayMessageSocket();
    /// A plain connection to `address`.
    RelayMessageSocket(int fd, sockaddr_in address);
    /// A TLS connection; with a null `ssl` the same as a plain one.
    RelayMessageSocket(int fd, sockaddr_in address, SSL* ssl);

    // What the constructor was given: the peer's address, the descriptor, the TLS session.

    void GetAddress(sockaddr_in& address) const { address = siAddress; }
    void GetMsgSockFileDesc(int& fd) const { fd = sckMsgSockFileDesc; }
    [[nodiscard]] int getMsgSockFileDesc() const { return sckMsgSockFileDesc; }
    [[nodiscard]] bool bUseSSL() const { return pSSL != nullptr; }
    [[nodiscard]] SSL* getSSLPtr() const { return pSSL; }

    /// The text of the last read or write failure; empty when there was none.
    [[nodiscard]] const std::string& getErrorString() const { return _lastErrorString; }

    /// Whether the descriptor is readable now; works for any descriptor number. If the check fails,
    /// returns false and leaves "select failed with code %d" as error text.
    [[nodiscard]] bool bCheckSocket();

    /// One read into the buffer, after a readiness check unless `bBlockNotCheck`. Returns the bytes
    /// read; 0 at end of stream, with nothing to read or with a full buffer; negative on error.
    /// Leaves no error text.
    [[nodiscard]] int nReadSocket(bool bBlockNotCheck);

    /// Reads from the non-blocking descriptor until there is nothing left, the buffer is full or
    /// `kNonBlockingReadMax` bytes have been read. Returns the bytes read, possibly 0, or -1 at end
    /// of stream or on error with the reason in `getErrorString`. Frames received before an end of
    /// stream are in the buffer even then: dequeue them before dropping the connection.
    [[nodiscard]] int nReadNonBlockingSocket();

    /// The same for a sender of many messages: reads up to `InputBuffer::kBlockSize` bytes at once.
    /// Does not check for more bytes or for an end of stream, which a further event announces. A
    /// TLS session reads ahead from then on.
    [[nodiscard]] int nReadBurst();

    /// Moves the oldest complete image from the buffer to `chpOutNetMsg`, which needs room for
    /// `kMaxFrameImage` bytes, and stores its length. False, with nothing stored, when no frame is
    /// complete.
    [[nodiscard]] bool bDequeueNetMessage(char* chpOutNetMsg, int* nrOutNetMsgLen);

    /// What was read and not yet dequeued. To keep it while this socket may be deleted, move it out
    /// and back.
    [[nodiscard]] InputBuffer& input() { return inputBuffer; }

    /// Whether there is input that no readiness event will announce: bytes already in the TLS
    /// session, or a complete frame or a zero length byte in the buffer.
    [[nodiscard]] bool bHasMoreInput() const;

    /// Writes `n` bytes to descriptor `f` through this socket's TLS session, if it has one. Waits
    /// for room before each part for at most the given time; does not wait, and makes one system
    /// call, when there is room. Returns `n`, fewer after a time-out, or -1 on failure; a TLS
    /// failure leaves its reason in `getErrorString`. Never raises SIGPIPE.
    [[nodiscard]] int write_n_with_timeout(int f, const void* addr, int n, int timeoutSecs,
                                           int timeoutMicroSecs);

    /// The bytes that the last `write_n_with_timeout` wrote, even if it failed; 0 before the first.
    [[nodiscard]] int nLastWritten() const { return nWrittenLast; }

  private:
    [[nodiscard]] int nReadSome(int nRoom);
    [[nodiscard]] bool bGoOnAfterFailedRead(int nResult);
    [[nodiscard]] bool bKnownNonBlocking(int f);

    int sckMsgSockFileDesc;         ///< -1 when none
    sockaddr_in siAddress;          ///< the peer, as accepted or connected
    SSL* pSSL;                      ///< null for a plain connection; not owned
    bool bSeenNonBlocking = false;  ///< the descriptor had O_NONBLOCK set, and keeps it
    /// The last burst ended at one of its limits, so that the session may hold further records. It
    /// may also hold only the beginning of one, which is no reason to come back; only a read can
    /// tell.
    bool bBurstCutShort = false;
    int nWrittenLast = 0;
    std::string _lastErrorString;
    InputBuffer inputBuffer;
};

}  // namespace Orvex
