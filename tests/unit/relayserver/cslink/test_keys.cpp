// The login is protected by a bare RSA key: that is what the network speaks.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "tests/unit/relayserver/cslink/test_keys.h"

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/rsa.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "orvex/rsa_decrypter_impl.h"

namespace {

RSA* makeRsaKey(int nBits) {
    RSA* const pKey = RSA_new();
    BIGNUM* const pExponent = BN_new();
    EXPECT_EQ(1, BN_set_word(pExponent, RSA_F4));
    EXPECT_EQ(1, RSA_generate_key_ex(pKey, nBits, pExponent, nullptr));
    BN_free(pExponent);
    return pKey;
}

void addName(X509* pCertificate) {
    const auto* const achName = reinterpret_cast<const unsigned char*>("connserver.test");
    X509_NAME* const pName = X509_get_subject_name(pCertificate);
    EXPECT_EQ(1, X509_NAME_add_entry_by_txt(pName, "CN", MBSTRING_ASC, achName, -1, -1, 0));
    EXPECT_EQ(1, X509_set_issuer_name(pCertificate, pName));
}

X509* makeCertificate(EVP_PKEY* pKey) {
    constexpr long kHourSecs = 3600;
    X509* const pCertificate = X509_new();
    EXPECT_EQ(1, ASN1_INTEGER_set(X509_get_serialNumber(pCertificate), 1));
    X509_gmtime_adj(X509_getm_notBefore(pCertificate), -kHourSecs);
    X509_gmtime_adj(X509_getm_notAfter(pCertificate), kHourSecs);
    EXPECT_EQ(1, X509_set_pubkey(pCertificate, pKey));
    addName(pCertificate);
    EXPECT_LT(0, X509_sign(pCertificate, pKey, EVP_sha256()));
    return pCertificate;
}

}  // namespace

RSA* testRsaKey() {
    static RSA* const pKey = makeRsaKey(2048);
    return pKey;
}

RSA* tooLongRsaKey() {
    // Only its length is of interest, so the modulus need not be a product of primes.
    static RSA* const pKey = [] {
        RSA* const pLong = RSA_new();
        BIGNUM* const pModulus = BN_new();
        BIGNUM* const pExponent = BN_new();
        EXPECT_EQ(1, BN_set_bit(pModulus, 4095));
        EXPECT_EQ(1, BN_set_bit(pModulus, 0));
        EXPECT_EQ(1, BN_set_word(pExponent, RSA_F4));
        EXPECT_EQ(1, RSA_set0_key(pLong, pModulus, pExponent, nullptr));
        return pLong;
    }();
    return pKey;
}

Orvex::LogInNetMessage openLogin(const std::string& sImage) {
    Orvex::LogInNetMessage linm(sImage.data(), static_cast<int>(sImage.size()));
    Orvex::RSADecrypterImpl decrypter(testRsaKey());
    EXPECT_TRUE(linm.RSADecrypt(&decrypter));
    return linm;
}

SSL_CTX* newServerContext() {
    SSL_CTX* const pContext = SSL_CTX_new(TLS_server_method());
    EVP_PKEY* const pKey = EVP_PKEY_new();
    EXPECT_EQ(1, EVP_PKEY_set1_RSA(pKey, testRsaKey()));
    X509* const pCertificate = makeCertificate(pKey);
    EXPECT_EQ(1, SSL_CTX_use_certificate(pContext, pCertificate));
    EXPECT_EQ(1, SSL_CTX_use_PrivateKey(pContext, pKey));
    X509_free(pCertificate);
    EVP_PKEY_free(pKey);
    return pContext;
}
