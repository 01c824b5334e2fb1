#define OPENSSL_SUPPRESS_DEPRECATED

#include "orvex/rsa_decrypter_impl.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <string>

#include "tests/unit/orvex/rsa_keys.h"

namespace Orvex {
namespace {

using cipher_t = std::array<unsigned char, 128>;

cipher_t encryptedWith(RSA* pKey, const std::string& sPlain, int nPadding) {
    cipher_t cipher{};
    EXPECT_EQ(RSA_public_encrypt(static_cast<int>(sPlain.size()),
                                 reinterpret_cast<const unsigned char*>(sPlain.data()),
                                 cipher.data(), pKey, nPadding),
              128);
    return cipher;
}

/// One key pair for all tests: making it takes most of their time.
class RsaDecrypterImplTest : public testing::Test {
  protected:
    static RSA* pKey() {
        static const rsa_ptr_t pPair = generatedKey(1024);
        return pPair.get();
    }
    /// The result's length, or a negative number; its bytes are in `sPlain_`.
    int nDecrypted(RSA* pWith, const cipher_t& cipher, int nLen = 128) {
        cipher_t plain{};
        RSADecrypterImpl decrypter(pWith);
        const int nResult = decrypter.decrypt(nLen, cipher.data(), plain.data());
        sPlain_.assign(plain.begin(), plain.begin() + std::max(nResult, 0));
        return nResult;
    }

    std::string sPlain_;
};

TEST_F(RsaDecrypterImplTest, GivesThePlainTextAndItsLength) {
    EXPECT_EQ(nDecrypted(pKey(), encryptedWith(pKey(), "secret", RSA_PKCS1_OAEP_PADDING)), 6);
    EXPECT_EQ(sPlain_, "secret");
}

TEST_F(RsaDecrypterImplTest, FailsOnADamagedCipherText) {
    cipher_t cipher = encryptedWith(pKey(), "secret", RSA_PKCS1_OAEP_PADDING);
    cipher[100] = static_cast<unsigned char>(cipher[100] ^ 1U);
    EXPECT_LT(nDecrypted(pKey(), cipher), 0);
}

TEST_F(RsaDecrypterImplTest, FailsOnAnotherPadding) {
    EXPECT_LT(nDecrypted(pKey(), encryptedWith(pKey(), "secret", RSA_PKCS1_PADDING)), 0);
}

TEST_F(RsaDecrypterImplTest, FailsOnACipherTextOfAnotherLength) {
    const cipher_t cipher = encryptedWith(pKey(), "secret", RSA_PKCS1_OAEP_PADDING);
    EXPECT_LT(nDecrypted(pKey(), cipher, 127), 0);
}

TEST_F(RsaDecrypterImplTest, FailsWithAnotherKeyOrNone) {
    const cipher_t cipher = encryptedWith(pKey(), "secret", RSA_PKCS1_OAEP_PADDING);
    const rsa_ptr_t pOther = generatedKey(1024);
    EXPECT_LT(nDecrypted(pOther.get(), cipher), 0);
    EXPECT_LT(nDecrypted(nullptr, cipher), 0);
}

}  // namespace
}  // namespace Orvex
