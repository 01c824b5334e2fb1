// The protocol of the network uses DES tickets and a bare RSA key.
#define OPENSSL_SUPPRESS_DEPRECATED
#include "relayserver/settings/session_keys.h"

#include <openssl/err.h>
#include <openssl/pem.h>

#include <cstdio>
#include <memory>
#include <string>

#include "connserver/logging.h"
#include "orvex/net_message.h"

unsigned char achMyDESKey[kDESKeyLen] = {};
DES_key_schedule dksDESKeySched;
RSA* rsaPublicKey = nullptr;

namespace {

struct CloseFile {
    void operator()(FILE* pFile) const { std::fclose(pFile); }
};

void checkKeyFitsLogin() {
    const int nCipherTextLen = RSA_size(rsaPublicKey);
    const auto nRoom = static_cast<int>(Orvex::NetMessage::nMAX_MSG_DATA_LEN);
    if (nCipherTextLen > nRoom) {
        writeToLog(true,
                   "ERROR: public key gives %d bytes of cipher text, but a message holds only %d: "
                   "no login can be sent with this key\n",
                   nCipherTextLen, nRoom);
    }
}

}  // namespace

void makeSessionKey() {
    DES_cblock dcbKey;
    do {
        DES_random_key(&dcbKey);
    } while (DES_set_key_checked(&dcbKey, &dksDESKeySched) < 0);
    std::string sKey;
    for (size_t i = 0; i < kDESKeyLen; ++i) {
        achMyDESKey[i] = dcbKey[i];
        sKey += std::to_string(dcbKey[i]) + " ";
    }
    writeToLog(true, "Client DES Key: %s\n", sKey.c_str());
}

void decryptTicketBlocks(unsigned char* achTicket, size_t nTicketLen) {
    for (size_t nBlock = 0; nBlock + kDESKeyLen <= nTicketLen; nBlock += kDESKeyLen) {
        auto* const pdcbBlock = reinterpret_cast<DES_cblock*>(achTicket + nBlock);
        DES_ecb_encrypt(pdcbBlock, pdcbBlock, &dksDESKeySched, DES_DECRYPT);
    }
}

PublicKeyOutcome loadPublicKey() {
    const std::unique_ptr<FILE, CloseFile> pFile(std::fopen("pub.key", "rb"));
    if (pFile == nullptr) {
        writeToLog(true, "ERROR: no public key file to access server. relayserver quitting.\n");
        return PublicKeyOutcome::kNoFile;
    }
    rsaPublicKey = PEM_read_RSA_PUBKEY(pFile.get(), nullptr, nullptr, nullptr);
    if (rsaPublicKey == nullptr) {
        writeToLog(true, "RSA key read error: %s\n",
                   ERR_error_string(ERR_peek_last_error(), nullptr));
        return PublicKeyOutcome::kUnreadable;
    }
    writeToLog(true, "RSA Size: %d\n", RSA_size(rsaPublicKey));
    checkKeyFitsLogin();
    return PublicKeyOutcome::kLoaded;
}
