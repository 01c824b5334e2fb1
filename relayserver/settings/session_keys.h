/// The keys of this run: the relay's own DES key, with which the connection server encrypts
/// tickets, and the connection server's RSA public key, with which the relay encrypts its login.
/// Set once during start-up. Main thread only.
#pragma once

#include <openssl/des.h>
#include <openssl/rsa.h>

#include <cstddef>

/// Bytes of a DES key, and of a DES block.
constexpr size_t kDESKeyLen = 8;

/// The DES key, and the schedule made from it.
extern unsigned char achMyDESKey[kDESKeyLen];
extern DES_key_schedule dksDESKeySched;

/// Null until `loadPublicKey`.
extern RSA* rsaPublicKey;

/// Generates a new DES key and logs it.
void makeSessionKey();

/// Decrypts the complete 8-byte blocks of `achTicket` in place; a shorter tail is left unchanged.
void decryptTicketBlocks(unsigned char* achTicket, size_t nTicketLen);

/// The result of `loadPublicKey`.
enum class PublicKeyOutcome { kLoaded, kNoFile, kUnreadable };

/// Reads "pub.key" (PEM) from the working directory into `rsaPublicKey` and logs its size, or logs
/// why that failed. A key too long for a login message is loaded, with an ERROR line.
[[nodiscard]] PublicKeyOutcome loadPublicKey();
