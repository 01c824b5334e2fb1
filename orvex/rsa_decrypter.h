/// What a net message needs to decrypt its payload; a test may stand in for the key.
#pragma once

namespace Orvex {

class RSADecrypter {
  public:
    virtual ~RSADecrypter() = default;
    /// Decrypts `flen` bytes and returns the length of the result, or a negative number on failure.
    /// `to` must hold a block of the key's size; net messages offer 2048 bytes.
    virtual int decrypt(int flen, const unsigned char* from, unsigned char* to) = 0;
};

}  // namespace Orvex
