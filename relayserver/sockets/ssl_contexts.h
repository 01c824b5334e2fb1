/// The two TLS contexts: of the connections that clients make to us, and of those that we make.
/// Main thread only.
#pragma once

#include <openssl/ssl.h>

#include <memory>

/// Owns one TLS context; empty until `set_new`.
class SslCtxWrap {
  public:
    /// Holds a fresh context of `pMethod` in place of the one held so far; false when OpenSSL has
    /// none to give.
    bool set_new(const SSL_METHOD* pMethod);

    [[nodiscard]] SSL_CTX* get() const { return _pContext.get(); }

  private:
    struct Free {
        void operator()(SSL_CTX* pContext) const { SSL_CTX_free(pContext); }
    };
    std::unique_ptr<SSL_CTX, Free> _pContext;
};

extern SslCtxWrap& sslctx_server;
extern SslCtxWrap& sslctx_client;

/// Initialises the TLS library and makes both contexts anew.
void InitializeSSL();

/// Makes the client context unless there is one.
void ensureClientContext();

/// Loads certificate chain and key into the server context; logs why and returns false on failure.
[[nodiscard]] bool bLoadServerCertificate();

/// For the error-printing call of the TLS library: logs one line of its error queue; always 1.
int sslErrorCallback(const char* sText, size_t nLen, void* pUser);
