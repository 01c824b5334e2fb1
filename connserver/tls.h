/// The choice of TLS protocol version, the same for all programs of the network.
#pragma once

#include <openssl/ssl.h>

/// OpenSSL's version-flexible method, from which all TLS contexts are made: both sides agree on the
/// highest version that both know. Lives as long as the process.
const SSL_METHOD* chooseSslMethod();
