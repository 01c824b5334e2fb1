// How a message encrypts and decrypts its payload, with a stand-in and with real keys.
#define OPENSSL_SUPPRESS_DEPRECATED

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "genner/output/ChallengeNetMessage.h"
#include "orvex/net_message.h"
#include "orvex/rsa_decrypter_impl.h"
#include "orvex/rsa_encrypter_impl.h"
#include "tests/unit/orvex/image_bytes.h"
#include "tests/unit/orvex/rsa_keys.h"

namespace Orvex {
namespace {

/// Returns `nResult` and fills as many bytes; remembers what it was given.
class FakeCipher : public RSAEncrypter, public RSADecrypter {
  public:
    explicit FakeCipher(int nInResult, char chInFill = 'e')
        : nResult(nInResult), chFill(chInFill) {}
    int encrypt(int flen, const unsigned char* from, unsigned char* to) override {
        ++nCalls;
        sFrom.assign(reinterpret_cast<const char*>(from), static_cast<std::size_t>(flen));
        std::fill_n(to, std::max(nResult, 0), static_cast<unsigned char>(chFill));
        return nResult;
    }
    int decrypt(int flen, const unsigned char* from, unsigned char* to) override {
        return encrypt(flen, from, to);
    }
    int nResult;
    char chFill;
    int nCalls = 0;
    std::string sFrom;
};

class NetMessageRsaTest : public testing::Test {
  protected:
    void SetUp() override { testing::internal::CaptureStdout(); }
    void TearDown() override { EXPECT_EQ(testing::internal::GetCapturedStdout(), sExpectedOut); }
    std::string sExpectedOut;
};

NetMessage messageWith(const std::string& sPayload) {
    return receivedFrom<NetMessage>(imageWith(1, sPayload));
}

TEST_F(NetMessageRsaTest, CipherTextReplacesThePayloadOnly) {
    NetMessage message = messageWith("secret~");
    FakeCipher cipher(256);
    EXPECT_TRUE(message.RSAEncrypt(&cipher));
    EXPECT_EQ(cipher.sFrom, "secret~");
    EXPECT_EQ(imageOf(message), imageWith(1, std::string(256, 'e')));
    EXPECT_TRUE(message.isInSync());
}

TEST_F(NetMessageRsaTest, EncryptedMessageIsNotPackedAgainWhenSent) {
    ChallengeNetMessage message(77);
    message.SetLoginNumber(78);
    FakeCipher cipher(128);
    EXPECT_TRUE(message.RSAEncrypt(&cipher));
    EXPECT_EQ(cipher.sFrom, "78~");
    EXPECT_EQ(std::string(message.frame()).substr(10), std::string(128, 'e'));
}

TEST_F(NetMessageRsaTest, FailedEncryptionLeavesTheMessage) {
    NetMessage message = messageWith("secret~");
    FakeCipher cipher(-1);
    EXPECT_FALSE(message.RSAEncrypt(&cipher));
    EXPECT_EQ(imageOf(message), imageWith(1, "secret~"));
    sExpectedOut = "RSA encryption failed\n";
}

TEST_F(NetMessageRsaTest, CipherTextOf499BytesFitsAPayload) {
    NetMessage message = messageWith("secret~");
    FakeCipher cipher(499);
    EXPECT_TRUE(message.RSAEncrypt(&cipher));
    EXPECT_EQ(imageOf(message), imageWith(1, std::string(499, 'e')));
    EXPECT_EQ(message.frame().size(), 510U);
}

TEST_F(NetMessageRsaTest, CipherTextThatDoesNotFitFailsWithoutOverwriting) {
    for (const int nResult : {500, 512, 2048}) {
        NetMessage message = messageWith("secret~");
        FakeCipher cipher(nResult);
        EXPECT_FALSE(message.RSAEncrypt(&cipher)) << nResult;
        EXPECT_EQ(imageOf(message), imageWith(1, "secret~"));
        sExpectedOut += "RSA encryption failed\n";
    }
}

TEST_F(NetMessageRsaTest, KeysTooLargeForAPayloadFailWithoutOverwriting) {
    for (const int nBits : {4000, 4096, 8192, 16384}) {
        const rsa_ptr_t pKey = publicKeyOf(nBits);
        RSAEncrypterImpl encrypter(pKey.get());
        EXPECT_EQ(encrypter.size(), nBits / 8);
        NetMessage message = messageWith("secret~");
        EXPECT_FALSE(message.RSAEncrypt(&encrypter)) << nBits;
        EXPECT_EQ(imageOf(message), imageWith(1, "secret~"));
        sExpectedOut += "RSA encryption failed\n";
    }
}

TEST_F(NetMessageRsaTest, LargestUsableKeyHas3992Bits) {
    const rsa_ptr_t pKey = publicKeyOf(3992);
    RSAEncrypterImpl encrypter(pKey.get());
    NetMessage message = messageWith("secret~");
    EXPECT_TRUE(message.RSAEncrypt(&encrypter));
    EXPECT_EQ(message.GetMessageLen(), 508);
}

TEST_F(NetMessageRsaTest, ImagesShorterThanAHeaderAreEncryptedAsEmpty) {
    auto message = receivedFrom<NetMessage>(std::string(3, '\x01'));
    FakeCipher cipher(16);
    EXPECT_TRUE(message.RSAEncrypt(&cipher));
    EXPECT_EQ(cipher.sFrom, "");
    EXPECT_EQ(message.GetMessageLen(), 25);
}

TEST_F(NetMessageRsaTest, OversizeMessageIsNotEncrypted) {
    auto message = receivedFrom<NetMessage>(std::string(509, 'x'));
    FakeCipher cipher(128);
    EXPECT_FALSE(message.RSAEncrypt(&cipher));
    EXPECT_EQ(cipher.nCalls, 0);
    sExpectedOut = "RSA encryption failed\n";
}

TEST_F(NetMessageRsaTest, DecryptionReplacesThePayloadAndUnpacks) {
    ChallengeNetMessage message(5);
    FakeCipher cipher(3, '4');
    EXPECT_TRUE(message.RSADecrypt(&cipher));
    EXPECT_EQ(cipher.sFrom, "5~");
    EXPECT_EQ(payloadOf(message), "444");
    EXPECT_EQ(message.GetLoginNumber(), 444);
    EXPECT_TRUE(message.isInSync());
}

TEST_F(NetMessageRsaTest, NothingToDecryptFailsWithoutCallingTheDecrypter) {
    FakeCipher cipher(3);
    auto headerOnly = messageWith("");
    EXPECT_FALSE(headerOnly.RSADecrypt(&cipher));
    auto shorter = receivedFrom<NetMessage>("ab");
    EXPECT_FALSE(shorter.RSADecrypt(&cipher));
    EXPECT_EQ(cipher.nCalls, 0);
}

TEST_F(NetMessageRsaTest, FailedOrTooLongDecryptionLeavesTheMessage) {
    for (const int nResult : {-1, 500, 2048}) {
        FakeCipher cipher(nResult);
        NetMessage message = messageWith("cipher");
        EXPECT_FALSE(message.RSADecrypt(&cipher)) << nResult;
        EXPECT_EQ(imageOf(message), imageWith(1, "cipher"));
        sExpectedOut += "RSA decryption failed\n";
    }
}

TEST_F(NetMessageRsaTest, PadOfAMaximalFrameIsNotDecrypted) {
    FakeCipher cipher(3);
    NetMessage message = messageWith(std::string(499, 'c') + "~");
    EXPECT_TRUE(message.RSADecrypt(&cipher));
    EXPECT_EQ(cipher.sFrom.size(), 499U);
}

TEST_F(NetMessageRsaTest, KeyPairTakesAMessageThereAndBack) {
    const rsa_ptr_t pKey = generatedKey(1024);
    RSAEncrypterImpl encrypter(pKey.get());
    RSADecrypterImpl decrypter(pKey.get());
    ChallengeNetMessage sent(123456);
    EXPECT_TRUE(sent.RSAEncrypt(&encrypter));
    const std::string sFrame(sent.frame());
    EXPECT_EQ(sFrame.size(), 1U + 9U + 128U);
    EXPECT_EQ(sFrame[1], '\x0E');
    auto got = receivedFrom<ChallengeNetMessage>(sFrame.substr(1));
    EXPECT_TRUE(got.RSADecrypt(&decrypter));
    EXPECT_EQ(got.GetLoginNumber(), 123456);
}

TEST_F(NetMessageRsaTest, PayloadTooLongForTheKeyFails) {
    const rsa_ptr_t pKey = publicKeyOf(1024);
    RSAEncrypterImpl encrypter(pKey.get());
    NetMessage longest = messageWith(std::string(86, 'x'));
    EXPECT_TRUE(longest.RSAEncrypt(&encrypter));
    NetMessage tooLong = messageWith(std::string(87, 'x'));
    EXPECT_FALSE(tooLong.RSAEncrypt(&encrypter));
    sExpectedOut = "RSA encryption failed\n";
}

TEST_F(NetMessageRsaTest, WithoutAKeyNothingIsEncrypted) {
    RSAEncrypterImpl encrypter(nullptr);
    RSADecrypterImpl decrypter(nullptr);
    EXPECT_EQ(encrypter.size(), 0);
    NetMessage message = messageWith("secret~");
    EXPECT_FALSE(message.RSAEncrypt(&encrypter));
    EXPECT_FALSE(message.RSADecrypt(&decrypter));
    sExpectedOut = "RSA encryption failed\nRSA decryption failed\n";
}

}  // namespace
}  // namespace Orvex
