/// Encryption with an RSA public key and OAEP padding.
#pragma once

#include <openssl/types.h>

#include "orvex/rsa_encrypter.h"

namespace Orvex {

class RSAEncrypterImpl : public RSAEncrypter {
  public:
    /// The caller keeps the key, which must outlive this object. With a null key every call fails.
    explicit RSAEncrypterImpl(RSA* rsaPublicKey) : _rsaPublicKey(rsaPublicKey) {}

    /// See the base class.
    int encrypt(int flen, const unsigned char* from, unsigned char* to) override;
    /// The length of a cipher text in bytes, which is the key's size: a key above 499 bytes (3992
    /// bits) gives cipher texts too long for a payload. 0 without a key.
    [[nodiscard]] int size() const;

  private:
    RSA* _rsaPublicKey;
};

}  // namespace Orvex
