#define OPENSSL_SUPPRESS_DEPRECATED

#include "orvex/rsa_encrypter_impl.h"

#include <gtest/gtest.h>

#include <array>
#include <string>

#include "tests/unit/orvex/rsa_keys.h"

namespace Orvex {
namespace {

/// The result's length, or a negative number; its bytes go to `sCipher` if given.
int nEncrypted(RSA* pKey, const std::string& sPlain, std::string* psCipher = nullptr) {
    std::array<unsigned char, 2048> achTo{};
    RSAEncrypterImpl encrypter(pKey);
    const int nResult =
        encrypter.encrypt(static_cast<int>(sPlain.size()),
                          reinterpret_cast<const unsigned char*>(sPlain.data()), achTo.data());
    if (psCipher != nullptr && nResult > 0) {
        psCipher->assign(achTo.begin(), achTo.begin() + nResult);
    }
    return nResult;
}

TEST(RsaEncrypterImpl, GivesCipherTextsOfTheKeysSize) {
    for (const int nBits : {1024, 3992, 16384}) {
        const rsa_ptr_t pKey = publicKeyOf(nBits);
        EXPECT_EQ(RSAEncrypterImpl(pKey.get()).size(), nBits / 8);
        EXPECT_EQ(nEncrypted(pKey.get(), "secret"), nBits / 8);
    }
}

TEST(RsaEncrypterImpl, PadsByOaep) {
    const rsa_ptr_t pKey = generatedKey(1024);
    std::string sCipher;
    ASSERT_EQ(nEncrypted(pKey.get(), "secret", &sCipher), 128);
    std::array<unsigned char, 128> achPlain{};
    const auto* const pCipher = reinterpret_cast<const unsigned char*>(sCipher.data());
    ASSERT_EQ(
        RSA_private_decrypt(128, pCipher, achPlain.data(), pKey.get(), RSA_PKCS1_OAEP_PADDING), 6);
    EXPECT_EQ(std::string(achPlain.begin(), achPlain.begin() + 6), "secret");
}

TEST(RsaEncrypterImpl, GivesAnotherCipherTextEachTime) {
    const rsa_ptr_t pKey = publicKeyOf(1024);
    std::string sFirst;
    std::string sSecond;
    ASSERT_EQ(nEncrypted(pKey.get(), "secret", &sFirst), 128);
    ASSERT_EQ(nEncrypted(pKey.get(), "secret", &sSecond), 128);
    EXPECT_NE(sFirst, sSecond);
}

TEST(RsaEncrypterImpl, FailsOnATextTooLongForTheKey) {
    const rsa_ptr_t pKey = publicKeyOf(1024);
    EXPECT_EQ(nEncrypted(pKey.get(), std::string(86, 'x')), 128);
    EXPECT_LT(nEncrypted(pKey.get(), std::string(87, 'x')), 0);
}

TEST(RsaEncrypterImpl, FailsWithoutAKey) {
    EXPECT_LT(nEncrypted(nullptr, "secret"), 0);
    EXPECT_EQ(RSAEncrypterImpl(nullptr).size(), 0);
}

}  // namespace
}  // namespace Orvex
