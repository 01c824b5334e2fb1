/// Keys of a connection server that exists for a test only.
#pragma once

#include <openssl/types.h>

#include <string>

#include "genner/output/LogInNetMessage.h"

/// A 2048-bit pair, made once in each process; both halves are in it.
RSA* testRsaKey();

/// A key whose cipher text does not fit into a message.
RSA* tooLongRsaKey();

/// Opens a received login with `testRsaKey`; a login that cannot be opened fails the test.
Orvex::LogInNetMessage openLogin(const std::string& sImage);

/// A server context with a self-signed certificate. The caller frees it.
SSL_CTX* newServerContext();
