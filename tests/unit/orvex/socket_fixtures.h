/// Real descriptors for socket tests: a connected pair of any kind, and TLS sessions over one.
#pragma once

#include <openssl/evp.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

/// Owns one descriptor.
class Fd {
  public:
    explicit Fd(int nFd = -1) : fd(nFd) {}
    ~Fd() { closeNow(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    [[nodiscard]] int get() const { return fd; }
    void take(int nFd) {
        closeNow();
        fd = nFd;
    }
    void closeNow() {
        if (fd >= 0) {
            close(fd);
        }
        fd = -1;
    }

  private:
    int fd;
};

/// A connected pair of stream sockets, `near` non-blocking.
struct SocketPair {
    SocketPair();
    Fd near;
    Fd far;
};

/// A pipe: written at `in`, read at `out`; both ends block.
struct Pipe {
    Pipe();
    Fd in;
    Fd out;
};

/// Adds O_NONBLOCK.
void makeNonBlockingForTest(int fd);
[[nodiscard]] bool bIsNonBlockingForTest(int fd);

/// Writes to `fd` until it has no room; returns the bytes it took.
int nFillUp(int fd);
/// Reads everything available at `fd` without blocking.
std::string sReadWaiting(int fd);
/// Writes all of `sBytes`, which must fit.
void writeAll(int fd, const std::string& sBytes);

struct SslDeleter {
    void operator()(SSL* p) const { SSL_free(p); }
    void operator()(SSL_CTX* p) const { SSL_CTX_free(p); }
    void operator()(BIO* p) const { BIO_free(p); }
    void operator()(X509* p) const { X509_free(p); }
    void operator()(EVP_PKEY* p) const { EVP_PKEY_free(p); }
};
template <typename T>
using SslPtr = std::unique_ptr<T, SslDeleter>;

/// A socket pair with the handshake done: the near end is the server, with a self-signed
/// certificate made here. Both ends are non-blocking.
struct TlsPair {
    TlsPair();
    /// Encrypts at the far end; each call makes new records.
    void farWrites(const std::string& sBytes);
    /// What the far end can decrypt now.
    [[nodiscard]] std::string sFarReads();

    SocketPair pair;
    SslPtr<SSL_CTX> serverCtx;
    SslPtr<SSL_CTX> clientCtx;
    SslPtr<SSL> near;
    SslPtr<SSL> far;
};

/// A TLS session whose transport takes 16 bytes and then none, whatever its descriptor says.
class UnwritableSession {
  public:
    UnwritableSession();
    [[nodiscard]] SSL* get() const { return ssl.get(); }

  private:
    SslPtr<SSL_CTX> ctx;
    SslPtr<SSL> ssl;
    SslPtr<BIO> sink;
};
