/// Decryption with an RSA private key and OAEP padding.
#pragma once

#include <openssl/types.h>

#include "orvex/rsa_decrypter.h"

namespace Orvex {

class RSADecrypterImpl : public RSADecrypter {
  public:
    /// The caller keeps the key, which must outlive this object. With a null key every call fails.
    explicit RSADecrypterImpl(RSA* rsaPrivateKey) : _rsaPrivateKey(rsaPrivateKey) {}

    /// See the base class.
    int decrypt(int flen, const unsigned char* from, unsigned char* to) override;

  private:
    RSA* _rsaPrivateKey;
};

}  // namespace Orvex
