// OpenSSL has deprecated its RSA objects, but the key files are loaded into them.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "orvex/rsa_encrypter_impl.h"

#include <openssl/rsa.h>

namespace Orvex {

int RSAEncrypterImpl::encrypt(int flen, const unsigned char* from, unsigned char* to) {
    if (_rsaPublicKey == nullptr) {
        return -1;
    }
    return RSA_public_encrypt(flen, from, to, _rsaPublicKey, RSA_PKCS1_OAEP_PADDING);
}

int RSAEncrypterImpl::size() const {
    return _rsaPublicKey == nullptr ? 0 : RSA_size(_rsaPublicKey);
}

}  // namespace Orvex
