/// The interface through which a net message decrypts its payload; tests replace it. For the thread
/// that owns the message.
#pragma once

namespace Orvex {

class RSADecrypter {
  public:
    virtual ~RSADecrypter() = default;
    /// Decrypts the `flen` bytes at `from` into `to`, which must have room for a block of the key's
    /// size (net messages provide 2048 bytes). Returns the length of the result, or a negative
    /// number on failure.
    virtual int decrypt(int flen, const unsigned char* from, unsigned char* to) = 0;
};

}  // namespace Orvex
