/// RSA keys made on the spot. A source that includes this defines OPENSSL_SUPPRESS_DEPRECATED
/// first: keys are made with the calls that the product's classes are built on.
#pragma once

#include <gtest/gtest.h>
#include <openssl/bn.h>
#include <openssl/rsa.h>

#include <memory>

struct rsa_free_t {
    void operator()(RSA* pKey) const { RSA_free(pKey); }
};
using rsa_ptr_t = std::unique_ptr<RSA, rsa_free_t>;

/// A key pair; takes time that grows steeply with `nBits`.
inline rsa_ptr_t generatedKey(int nBits) {
    rsa_ptr_t pKey(RSA_new());
    BIGNUM* const pExponent = BN_new();
    BN_set_word(pExponent, RSA_F4);
    EXPECT_EQ(RSA_generate_key_ex(pKey.get(), nBits, pExponent, nullptr), 1);
    BN_free(pExponent);
    return pKey;
}

/// A public key of any size, at once: to encrypt, its modulus need not be a product of primes.
inline rsa_ptr_t publicKeyOf(int nBits) {
    rsa_ptr_t pKey(RSA_new());
    BIGNUM* const pModulus = BN_new();
    BIGNUM* const pExponent = BN_new();
    BN_rand(pModulus, nBits, BN_RAND_TOP_TWO, BN_RAND_BOTTOM_ODD);
    BN_set_word(pExponent, RSA_F4);
    EXPECT_EQ(RSA_set0_key(pKey.get(), pModulus, pExponent, nullptr), 1);
    return pKey;
}
