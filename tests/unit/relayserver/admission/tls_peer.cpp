#include "tests/unit/relayserver/admission/tls_peer.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include <cstdio>

#include "relayserver/settings/settings.h"
#include "relayserver/sockets/ssl_contexts.h"
#include "tests/unit/relayserver/loopback.h"

namespace {

constexpr long kDaySecs = 86400;

X509* newSelfSigned(EVP_PKEY* pKey) {
    X509* const pCertificate = X509_new();
    X509_set_version(pCertificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(pCertificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(pCertificate), -kDaySecs);
    X509_gmtime_adj(X509_getm_notAfter(pCertificate), kDaySecs);
    X509_set_pubkey(pCertificate, pKey);
    X509_NAME* const pName = X509_get_subject_name(pCertificate);
    X509_NAME_add_entry_by_txt(pName, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(pCertificate, pName);
    X509_sign(pCertificate, pKey, EVP_sha256());
    return pCertificate;
}

}  // namespace

void writeCertificate(const std::string& sCertificateFile, const std::string& sPrivateKeyFile) {
    EVP_PKEY* const pKey = EVP_EC_gen("P-256");
    X509* const pCertificate = newSelfSigned(pKey);
    FILE* pFile = std::fopen(sCertificateFile.c_str(), "wb");
    ASSERT_NE(nullptr, pFile);
    EXPECT_EQ(1, PEM_write_X509(pFile, pCertificate));
    std::fclose(pFile);
    pFile = std::fopen(sPrivateKeyFile.c_str(), "wb");
    ASSERT_NE(nullptr, pFile);
    EXPECT_EQ(1, PEM_write_PrivateKey(pFile, pKey, nullptr, nullptr, 0, nullptr, nullptr));
    std::fclose(pFile);
    X509_free(pCertificate);
    EVP_PKEY_free(pKey);
}

void prepareServerContext() {
    const TempFolder folder;
    sCrtFile = folder.sFile("relay.pem");
    sKeyFile = folder.sFile("relay.key");
    writeCertificate(sCrtFile, sKeyFile);
    InitializeSSL();
    EXPECT_TRUE(bLoadServerCertificate());
}

TlsPeer::TlsPeer(int fd) : _pContext(SSL_CTX_new(TLS_client_method())) {
    fcntl(fd, F_SETFL, O_NONBLOCK);
    _pSSL.reset(SSL_new(_pContext.get()));
    SSL_set_fd(_pSSL.get(), fd);
    SSL_set_connect_state(_pSSL.get());
}

bool TlsPeer::bStepHandshake() {
    return SSL_do_handshake(_pSSL.get()) == 1;
}

void TlsPeer::sendBytes(const std::string& sBytes) {
    EXPECT_EQ(static_cast<int>(sBytes.size()),
              SSL_write(_pSSL.get(), sBytes.data(), static_cast<int>(sBytes.size())));
}

std::string TlsPeer::sReceive() {
    char achChunk[4096];
    while (true) {
        const int nRead = SSL_read(_pSSL.get(), achChunk, sizeof achChunk);
        if (nRead > 0) {
            return {achChunk, static_cast<size_t>(nRead)};
        }
        if (SSL_get_error(_pSSL.get(), nRead) != SSL_ERROR_WANT_READ ||
            !bWaitReadable(SSL_get_fd(_pSSL.get()))) {
            return {};
        }
    }
}
