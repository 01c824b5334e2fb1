#include "tests/unit/orvex/socket_fixtures.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <array>
#include <vector>

namespace {

/// A self-signed certificate for `key`, good for an hour.
SslPtr<X509> makeCertificate(EVP_PKEY* key) {
    SslPtr<X509> cert(X509_new());
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), 1);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), 0);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), 3600);
    X509_set_pubkey(cert.get(), key);
    X509_NAME* name = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("relay"), -1, -1, 0);
    X509_set_issuer_name(cert.get(), name);
    X509_sign(cert.get(), key, EVP_sha256());
    return cert;
}

}  // namespace

void makeNonBlockingForTest(int fd) {
    ASSERT_EQ(fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK), 0);
}

bool bIsNonBlockingForTest(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

SocketPair::SocketPair() {
    std::array<int, 2> fds{};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data()), 0);
    near.take(fds[0]);
    far.take(fds[1]);
    makeNonBlockingForTest(near.get());
}

Pipe::Pipe() {
    std::array<int, 2> fds{};
    EXPECT_EQ(pipe(fds.data()), 0);
    out.take(fds[0]);
    in.take(fds[1]);
}

int nFillUp(int fd) {
    const std::vector<char> vBytes(65536, 'f');
    int nTaken = 0;
    // Smaller and smaller parts, so that in the end not even one byte fits.
    for (std::size_t nPart = vBytes.size(); nPart > 0;) {
        const auto nSent = send(fd, vBytes.data(), nPart, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (nSent > 0) {
            nTaken += static_cast<int>(nSent);
        } else {
            nPart /= 2;
        }
    }
    return nTaken;
}

std::string sReadWaiting(int fd) {
    std::string sAll;
    std::array<char, 65536> ach;
    for (;;) {
        const auto nGot = recv(fd, ach.data(), ach.size(), MSG_DONTWAIT);
        if (nGot <= 0) {
            return sAll;
        }
        sAll.append(ach.data(), static_cast<std::size_t>(nGot));
    }
}

void writeAll(int fd, const std::string& sBytes) {
    ASSERT_EQ(send(fd, sBytes.data(), sBytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL),
              static_cast<ssize_t>(sBytes.size()));
}

TlsPair::TlsPair() : serverCtx(SSL_CTX_new(TLS_method())), clientCtx(SSL_CTX_new(TLS_method())) {
    signal(SIGPIPE, SIG_IGN);  // the far end writes with plain OpenSSL
    const SslPtr<EVP_PKEY> key(EVP_EC_gen("P-256"));
    const SslPtr<X509> cert = makeCertificate(key.get());
    SSL_CTX_use_certificate(serverCtx.get(), cert.get());
    SSL_CTX_use_PrivateKey(serverCtx.get(), key.get());
    near.reset(SSL_new(serverCtx.get()));
    far.reset(SSL_new(clientCtx.get()));
    makeNonBlockingForTest(pair.far.get());
    SSL_set_fd(near.get(), pair.near.get());
    SSL_set_fd(far.get(), pair.far.get());
    SSL_set_accept_state(near.get());
    SSL_set_connect_state(far.get());
    int nFar = 0;
    int nNear = 0;
    for (int nRound = 0; nRound < 20 && (nFar != 1 || nNear != 1); ++nRound) {
        nFar = SSL_do_handshake(far.get());
        nNear = SSL_do_handshake(near.get());
    }
    EXPECT_EQ(nFar, 1);
    EXPECT_EQ(nNear, 1);
    EXPECT_EQ(sFarReads(), "");  // processes the session tickets
}

void TlsPair::farWrites(const std::string& sBytes) {
    ASSERT_EQ(SSL_write(far.get(), sBytes.data(), static_cast<int>(sBytes.size())),
              static_cast<int>(sBytes.size()));
}

std::string TlsPair::sFarReads() {
    std::string sAll;
    std::array<char, 16384> ach;
    for (;;) {
        const int nGot = SSL_read(far.get(), ach.data(), static_cast<int>(ach.size()));
        if (nGot <= 0) {
            return sAll;
        }
        sAll.append(ach.data(), static_cast<std::size_t>(nGot));
    }
}

UnwritableSession::UnwritableSession() : ctx(SSL_CTX_new(TLS_method())), ssl(SSL_new(ctx.get())) {
    BIO* transport = nullptr;
    BIO* other = nullptr;
    EXPECT_EQ(BIO_new_bio_pair(&transport, 16, &other, 16), 1);
    sink.reset(other);
    SSL_set_bio(ssl.get(), transport, transport);
    SSL_set_connect_state(ssl.get());
}
