/// The keys of this run: the relay's own DES key, under which the connection server encrypts
/// tickets, and the connection server's RSA public key, under which the relay sends its login. Made
/// once during start-up. Main thread only.
#pragma once

#include <openssl/des.h>
#include <openssl/rsa.h>

#include <cstddef>

constexpr size_t kDESKeyLen = 8;

extern unsigned char achMyDESKey[kDESKeyLen];
extern DES_key_schedule dksDESKeySched;

/// Null until `bLoadPublicKey`.
extern RSA* rsaPublicKey;

/// Draws a fresh DES key and logs it.
void makeSessionKey();

/// Decrypts the whole 8-byte blocks of `achTicket` in place; an odd tail stays as it is.
void decryptTicketBlocks(unsigned char* achTicket, size_t nTicketLen);

enum class PublicKeyOutcome { kLoaded, kNoFile, kUnreadable };

/// Reads "pub.key" from the working directory into `rsaPublicKey` and logs its size; logs why not.
/// A key too long for a login to be sent under it is loaded, with an ERROR line.
[[nodiscard]] PublicKeyOutcome loadPublicKey();
