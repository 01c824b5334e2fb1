/// One connection of the load program to the daemon, plain or TLS, and what of its input is not
/// yet used up. Owns descriptor and session.
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
    /// What is left over of one read is less than one frame.
    static constexpr std::size_t kTailSize = 1024;

    Connection() = default;
    ~Connection();
    Connection(Connection&& rOther) noexcept;
    Connection& operator=(Connection&& rOther) noexcept;
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    /// Connects, with TLS when the options say so, from an address that depends on `nNumber` (the
    /// connections count from 0). A refused connect is tried again for some seconds: the daemon may
    /// just be starting. Ends the program when it does not succeed.
    static Connection open(const Options& options, int nNumber);
    /// The same, but non-blocking from then on, and with the TLS handshake still to come: the first
    /// writes and reads carry it on.
    static Connection begin(const Options& options, int nNumber);

    [[nodiscard]] int getFileDesc() const { return fd; }

    // While connections are made: blocking, a failure or 10 s without progress end the program.

    void writeAll(std::string_view svData);
    /// Reads at least one byte.
    [[nodiscard]] std::string sReadSome();

    // While it is measured: non-blocking.

    void makeNonBlocking();
    /// Bytes written, 0 when there is no room. A broken connection ends the program.
    [[nodiscard]] std::size_t nWriteSome(std::string_view svData);
    /// Bytes read into a buffer, 0 when there are none; otherwise like `nWriteSome`.
    [[nodiscard]] std::size_t nReadSome(char* pBuffer, std::size_t nRoom);
    /// Reads what has come and forgets it.
    void drain();

    /// The client's id at the relay; the other daemons know no ids.
    unsigned nId = 0;
    /// The beginning of a frame whose rest has not come yet.
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
