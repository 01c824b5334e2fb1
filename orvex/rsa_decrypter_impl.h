/// Decryption with an RSA private key and OAEP padding.
#pragma once

#include <openssl/types.h>

#include "orvex/rsa_decrypter.h"

namespace Orvex {

class RSADecrypterImpl : public RSADecrypter {
  public:
    /// The key belongs to the caller and must outlive this object.
    explicit RSADecrypterImpl(RSA* rsaPrivateKey) : _rsaPrivateKey(rsaPrivateKey) {}

    int decrypt(int flen, const unsigned char* from, unsigned char* to) override;

  private:
    RSA* _rsaPrivateKey;
};

}  // namespace Orvex
