#define OPENSSL_SUPPRESS_DEPRECATED
#include "relayserver/settings/session_keys.h"

#include <openssl/bn.h>
#include <openssl/pem.h>

#include <cstdio>
#include <cstring>
#include <filesystem>

#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/temp_folder.h"

namespace {

using testing::ElementsAre;
using testing::StartsWith;

class SessionKeys : public EngineTest {
  protected:
    SessionKeys() : _before(std::filesystem::current_path()) {
        std::filesystem::current_path(_folder.sPath());
    }
    ~SessionKeys() override {
        std::filesystem::current_path(_before);
        RSA_free(rsaPublicKey);
        rsaPublicKey = nullptr;
    }

    /// A public key of that many bits; nobody needs the private one.
    static RSA* newPublicKey(int nBits) {
        BIGNUM* const pModulus = BN_new();
        BIGNUM* const pExponent = BN_new();
        BN_rand(pModulus, nBits, BN_RAND_TOP_ONE, BN_RAND_BOTTOM_ODD);
        BN_set_word(pExponent, RSA_F4);
        RSA* const pKey = RSA_new();
        RSA_set0_key(pKey, pModulus, pExponent, nullptr);
        return pKey;
    }
    static void writeKey(int nBits, bool bSubjectPublicKeyInfo = true) {
        RSA* const pKey = newPublicKey(nBits);
        FILE* const pFile = std::fopen("pub.key", "wb");
        ASSERT_NE(nullptr, pFile);
        EXPECT_EQ(1, bSubjectPublicKeyInfo ? PEM_write_RSA_PUBKEY(pFile, pKey)
                                           : PEM_write_RSAPublicKey(pFile, pKey));
        std::fclose(pFile);
        RSA_free(pKey);
    }

    TempFolder _folder;

  private:
    std::filesystem::path _before;
};

TEST_F(SessionKeys, ASessionKeyIsDrawnAndLogged) {
    makeSessionKey();
    std::string sKey;
    for (const unsigned char chByte : achMyDESKey) {
        sKey += std::to_string(chByte) + " ";
    }
    EXPECT_THAT(loggedLines(), ElementsAre("Client DES Key: " + sKey + "\n"));
}

TEST_F(SessionKeys, ASessionKeyHasOddParityAndIsNotWeak) {
    for (int i = 0; i < 100; ++i) {
        makeSessionKey();
        DES_cblock dcbKey;
        std::memcpy(dcbKey, achMyDESKey, sizeof dcbKey);
        EXPECT_EQ(1, DES_check_key_parity(&dcbKey));
        EXPECT_EQ(0, DES_is_weak_key(&dcbKey));
    }
}

TEST_F(SessionKeys, EachSessionHasItsOwnKey) {
    makeSessionKey();
    const std::string sFirst(reinterpret_cast<const char*>(achMyDESKey), kDESKeyLen);
    makeSessionKey();
    EXPECT_NE(sFirst, std::string(reinterpret_cast<const char*>(achMyDESKey), kDESKeyLen));
}

TEST_F(SessionKeys, TicketsAreDecryptedUnderTheLoggedKeyBlockByBlock) {
    makeSessionKey();
    DES_key_schedule schedule;
    DES_cblock dcbKey;
    std::memcpy(dcbKey, achMyDESKey, sizeof dcbKey);
    ASSERT_EQ(0, DES_set_key_checked(&dcbKey, &schedule));
    unsigned char achBytes[] = "first 8.second 8odd";
    for (size_t nBlock = 0; nBlock < 16; nBlock += 8) {
        auto* const pdcb = reinterpret_cast<DES_cblock*>(achBytes + nBlock);
        DES_ecb_encrypt(pdcb, pdcb, &schedule, DES_ENCRYPT);
    }
    decryptTicketBlocks(achBytes, sizeof achBytes - 1);
    EXPECT_STREQ("first 8.second 8odd", reinterpret_cast<const char*>(achBytes));
}

TEST_F(SessionKeys, AMissingKeyFileIsLogged) {
    EXPECT_EQ(PublicKeyOutcome::kNoFile, loadPublicKey());
    EXPECT_THAT(loggedLines(),
                ElementsAre("ERROR: no public key file to access server. relayserver quitting.\n"));
}

TEST_F(SessionKeys, AKeyIsLoadedAndItsSizeLogged) {
    writeKey(2048);
    EXPECT_EQ(PublicKeyOutcome::kLoaded, loadPublicKey());
    EXPECT_THAT(loggedLines(), ElementsAre("RSA Size: 256\n"));
    ASSERT_NE(nullptr, rsaPublicKey);
    EXPECT_EQ(256, RSA_size(rsaPublicKey));
}

TEST_F(SessionKeys, AKeyThatDoesNotFitALoginIsNamed) {
    writeKey(4096);
    EXPECT_EQ(PublicKeyOutcome::kLoaded, loadPublicKey());
    ASSERT_EQ(2U, loggedLines().size());
    EXPECT_EQ("RSA Size: 512\n", loggedLines().front());
    EXPECT_THAT(loggedLines().back(), StartsWith("ERROR: public key gives 512 bytes"));
}

TEST_F(SessionKeys, WhatIsNoKeyIsLoggedWithTheLibrarysText) {
    _folder.sWrite("pub.key", "no key\n");
    EXPECT_EQ(PublicKeyOutcome::kUnreadable, loadPublicKey());
    EXPECT_THAT(loggedLines(),
                ElementsAre("RSA key read error: error:0480006C:PEM routines::no start line\n"));
    EXPECT_EQ(nullptr, rsaPublicKey);
}

TEST_F(SessionKeys, TheOtherPublicKeyFormIsNotRead) {
    writeKey(2048, false);
    EXPECT_EQ(PublicKeyOutcome::kUnreadable, loadPublicKey());
}

}  // namespace
