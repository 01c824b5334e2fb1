// OpenSSL has deprecated its RSA objects, but the key files are loaded into them.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "orvex/rsa_decrypter_impl.h"

#include <openssl/rsa.h>

namespace Orvex {

int RSADecrypterImpl::decrypt(int flen, const unsigned char* from, unsigned char* to) {
    if (_rsaPrivateKey == nullptr) {
        return -1;
    }
    return RSA_private_decrypt(flen, from, to, _rsaPrivateKey, RSA_PKCS1_OAEP_PADDING);
}

}  // namespace Orvex
