/// One connection of the load program to the daemon, plain or TLS, and its unprocessed input. Owns
/// descriptor and session.
#pragma once

#include <openssl/types.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

#include "bench/load/options.h"

namespace Load {

class Connection {
  public:
    /// Less than one frame is left over from a read.
    static constexpr std::size_t kTailSize = 1024;

    Connection() = default;
    ~Connection();
    Connection(Connection&& rOther) noexcept;
    Connection& operator=(Connection&& rOther) noexcept;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Connects, with TLS when the options say so, from an address that depends on `nNumber`
    /// (connections are numbered from 0). A refused connect is retried for some seconds: the daemon
    /// may still be starting. Ends the program if it fails.
    static Connection open(const Options& options, int nNumber);
    /// The same, but non-blocking from then on, and with the TLS handshake not yet done: the first
    /// writes and reads perform it.
    static Connection begin(const Options& options, int nNumber);

    [[nodiscard]] int getFileDesc() const { return fd; }

    // During set-up: blocking; a failure, or 10 s without progress, ends the program.

    void writeAll(std::string_view svData);
    /// Reads at least one byte.
    [[nodiscard]] std::string sReadSome();

    // During the measurement: non-blocking.

    void makeNonBlocking();
    /// Bytes written, 0 when there is no room. A broken connection ends the program.
    [[nodiscard]] std::size_t nWriteSome(std::string_view svData);
    /// Bytes read into a buffer, 0 when there are none; otherwise like `nWriteSome`.
    [[nodiscard]] std::size_t nReadSome(char* pBuffer, std::size_t nRoom);
    /// Reads and discards what has arrived.
    void drain();

    /// The client's id at the relay; other daemons have no ids.
    unsigned nId = 0;
    /// The beginning of an incomplete frame.
    std::array<char, kTailSize> achTail;
    std::size_t nTail = 0;

  private:
    void makeSession();

    int fd = -1;
    SSL* pSsl = nullptr;
};

/// The dotted source address of a connection: fewer than a hundred connections share one, because
/// the relay accepts no more from one address in ten seconds.
[[nodiscard]] std::string sClientAddress(int nClientNet, int nNumber);

}  // namespace Load
