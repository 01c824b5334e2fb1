/// The choice of TLS protocol version, the same for all programs of the network.
#pragma once

#include <openssl/ssl.h>

/// OpenSSL's version-flexible method, for all TLS contexts: both sides agree on the highest version
/// that both support. Valid as long as the process. Any thread.
const SSL_METHOD* chooseSslMethod();
