#include "relayserver/sockets/ssl_contexts.h"

#include <openssl/err.h>

#include "connserver/logging.h"
#include "connserver/tls.h"
#include "relayserver/settings/settings.h"

// Never destroyed, because the process ends with sessions of both contexts open.
SslCtxWrap& sslctx_server = *new SslCtxWrap;
SslCtxWrap& sslctx_client = *new SslCtxWrap;

namespace {

/// The newest error of the TLS library as text.
const char* sLastTlsError() {
    return ERR_error_string(ERR_peek_last_error(), nullptr);
}

}  // namespace

bool SslCtxWrap::set_new(const SSL_METHOD* pMethod) {
    _pContext.reset(SSL_CTX_new(pMethod));
    if (_pContext == nullptr) {
        return false;
    }
    // Idle sessions then hold no buffers, and busy ones reuse buffers that are still in the
    // processor's cache.
    SSL_CTX_set_mode(_pContext.get(), SSL_MODE_RELEASE_BUFFERS);
    return true;
}

void InitializeSSL() {
    OPENSSL_init_ssl(
        OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS | OPENSSL_INIT_LOAD_CONFIG,
        nullptr);
    const SSL_METHOD* const pMethod = chooseSslMethod();
    sslctx_server.set_new(pMethod);
    sslctx_client.set_new(pMethod);
}

void ensureClientContext() {
    if (sslctx_client.get() == nullptr) {
        sslctx_client.set_new(chooseSslMethod());
    }
}

bool bLoadServerCertificate() {
    if (SSL_CTX_use_certificate_chain_file(sslctx_server.get(), sCrtFile.c_str()) != 1) {
        writeToLog(true, "SSL certificate load error: %s\n", sLastTlsError());
        return false;
    }
    if (SSL_CTX_use_PrivateKey_file(sslctx_server.get(), sKeyFile.c_str(), SSL_FILETYPE_PEM) != 1) {
        writeToLog(true, "SSL private key load error: %s\n", sLastTlsError());
        return false;
    }
    return true;
}

int sslErrorCallback(const char* sText, size_t /*nLen*/, void* /*pUser*/) {
    writeToLog(true, "%s", sText);
    return 1;
}
