/// Encryption with an RSA public key and OAEP padding.
#pragma once

#include <openssl/types.h>

#include "orvex/rsa_encrypter.h"

namespace Orvex {

class RSAEncrypterImpl : public RSAEncrypter {
  public:
    /// The key belongs to the caller and must outlive this object.
    explicit RSAEncrypterImpl(RSA* rsaPublicKey) : _rsaPublicKey(rsaPublicKey) {}

    int encrypt(int flen, const unsigned char* from, unsigned char* to) override;
    /// The bytes of one cipher text, which is the key's size: a key above 499 bytes (3992 bits)
    /// gives cipher texts that no payload can hold. 0 without a key.
    [[nodiscard]] int size() const;

  private:
    RSA* _rsaPublicKey;
};

}  // namespace Orvex
