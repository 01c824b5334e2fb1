#include "bench/load/connection.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "bench/load/cpu_clock.h"
#include "bench/load/give_up.h"

namespace Load {

namespace {

constexpr int kPerAddress = 90;
constexpr int kSetUpSecs = 10;
constexpr int kReceiveBuffer = 1 << 20;
constexpr std::int64_t kNsPerSec = 1'000'000'000;
constexpr int kRetryMs = 5;

sockaddr_in siAddress(const std::string& sAddress, std::uint16_t nPort) {
    sockaddr_in siResult{};
    siResult.sin_family = AF_INET;
    siResult.sin_port = htons(nPort);
    if (inet_pton(AF_INET, sAddress.c_str(), &siResult.sin_addr) != 1) {
        giveUp("not an IPv4 address: %s", sAddress.c_str());
    }
    return siResult;
}

void setOption(int fd, int nLevel, int nName, int nValue) {
    (void)setsockopt(fd, nLevel, nName, &nValue, sizeof nValue);
}

int fdMakeSocket(const std::string& sSource) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        giveUp("no more sockets: %s", std::strerror(errno));
    }
    setOption(fd, IPPROTO_TCP, TCP_NODELAY, 1);
    setOption(fd, IPPROTO_IP, IP_BIND_ADDRESS_NO_PORT, 1);
    // Room for what a daemon writes while we are busy with other connections. The second form
    // needs privileges, but has no limit.
    setOption(fd, SOL_SOCKET, SO_RCVBUF, kReceiveBuffer);
    setOption(fd, SOL_SOCKET, SO_RCVBUFFORCE, kReceiveBuffer);
    const timeval tvTimeout{kSetUpSecs, 0};
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tvTimeout, sizeof tvTimeout);
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tvTimeout, sizeof tvTimeout);
    const sockaddr_in siSource = siAddress(sSource, 0);
    if (bind(fd, reinterpret_cast<const sockaddr*>(&siSource), sizeof siSource) != 0) {
        giveUp("cannot bind to %s: %s", sSource.c_str(), std::strerror(errno));
    }
    return fd;
}

int fdConnect(const Options& options, const std::string& sSource) {
    const sockaddr_in siDaemon = siAddress(options.sAddress, options.nPort);
    const std::int64_t nDeadline = nMonotonicNs() + kSetUpSecs * kNsPerSec;
    while (true) {
        const int fd = fdMakeSocket(sSource);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&siDaemon), sizeof siDaemon) == 0) {
            return fd;
        }
        const int nError = errno;
        close(fd);
        if (nError != ECONNREFUSED || nMonotonicNs() > nDeadline) {
            giveUp("cannot connect to %s: %s", options.sAddress.c_str(), std::strerror(nError));
        }
        (void)poll(nullptr, 0, kRetryMs);
    }
}

/// One context for all connections. It checks no certificates: the daemon is our own.
SSL_CTX* pClientContext() {
    static SSL_CTX* const pContext = SSL_CTX_new(TLS_client_method());
    return pContext;
}

bool bJustNotNow(SSL* pSsl, int nResult) {
    const int nError = SSL_get_error(pSsl, nResult);
    return nError == SSL_ERROR_WANT_READ || nError == SSL_ERROR_WANT_WRITE;
}

}  // namespace

std::string sClientAddress(int nClientNet, int nNumber) {
    const int nAddress = nNumber / kPerAddress;
    return "127." + std::to_string(nClientNet) + "." + std::to_string(nAddress / 250) + "." +
           std::to_string(1 + nAddress % 250);
}

Connection::~Connection() {
    SSL_free(pSsl);
    if (fd >= 0) {
        close(fd);
    }
}

Connection::Connection(Connection&& rOther) noexcept {
    *this = std::move(rOther);
}

Connection& Connection::operator=(Connection&& rOther) noexcept {
    std::swap(fd, rOther.fd);
    std::swap(pSsl, rOther.pSsl);
    nId = rOther.nId;
    nTail = rOther.nTail;
    std::memcpy(achTail.data(), rOther.achTail.data(), nTail);
    return *this;
}

Connection Connection::open(const Options& options, int nNumber) {
    Connection connection;
    connection.fd = fdConnect(options, sClientAddress(options.nClientNet, nNumber));
    if (options.bTls) {
        connection.makeSession();
        if (SSL_connect(connection.pSsl) != 1) {
            giveUp("the TLS handshake failed");
        }
    }
    return connection;
}

Connection Connection::begin(const Options& options, int nNumber) {
    Connection connection;
    connection.fd = fdConnect(options, sClientAddress(options.nClientNet, nNumber));
    if (options.bTls) {
        connection.makeSession();
    }
    connection.makeNonBlocking();
    return connection;
}

void Connection::makeSession() {
    pSsl = SSL_new(pClientContext());
    SSL_set_mode(pSsl, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    SSL_set_fd(pSsl, fd);
    SSL_set_connect_state(pSsl);
}

void Connection::writeAll(std::string_view svData) {
    while (!svData.empty()) {
        const std::size_t nWritten = nWriteSome(svData);
        if (nWritten == 0) {
            giveUp("the daemon does not read");
        }
        svData.remove_prefix(nWritten);
    }
}

std::string Connection::sReadSome() {
    std::array<char, 4096> achBuffer;
    const std::size_t nRead = nReadSome(achBuffer.data(), achBuffer.size());
    if (nRead == 0) {
        giveUp("the daemon does not answer");
    }
    return {achBuffer.data(), nRead};
}

void Connection::makeNonBlocking() {
    (void)fcntl(fd, F_SETFL, O_NONBLOCK);
}

std::size_t Connection::nWriteSome(std::string_view svData) {
    if (pSsl != nullptr) {
        const int nWritten = SSL_write(pSsl, svData.data(), static_cast<int>(svData.size()));
        if (nWritten <= 0 && !bJustNotNow(pSsl, nWritten)) {
            giveUp("client %u lost its TLS connection while writing", nId);
        }
        return nWritten > 0 ? static_cast<std::size_t>(nWritten) : 0;
    }
    const ssize_t nWritten = send(fd, svData.data(), svData.size(), MSG_NOSIGNAL);
    if (nWritten < 0 && errno != EAGAIN) {
        giveUp("client %u lost its connection while writing: %s", nId, std::strerror(errno));
    }
    return nWritten > 0 ? static_cast<std::size_t>(nWritten) : 0;
}

std::size_t Connection::nReadSome(char* pBuffer, std::size_t nRoom) {
    if (pSsl != nullptr) {
        const int nRead = SSL_read(pSsl, pBuffer, static_cast<int>(nRoom));
        if (nRead <= 0 && !bJustNotNow(pSsl, nRead)) {
            giveUp("client %u lost its TLS connection", nId);
        }
        return nRead > 0 ? static_cast<std::size_t>(nRead) : 0;
    }
    const ssize_t nRead = recv(fd, pBuffer, nRoom, 0);
    if (nRead == 0 || (nRead < 0 && errno != EAGAIN)) {
        giveUp("client %u lost its connection: %s", nId,
               nRead == 0 ? "closed by the daemon" : std::strerror(errno));
    }
    return nRead > 0 ? static_cast<std::size_t>(nRead) : 0;
}

void Connection::drain() {
    std::array<char, 16384> achBuffer;
    while (nReadSome(achBuffer.data(), achBuffer.size()) == achBuffer.size()) {
    }
}

}  // namespace Load
