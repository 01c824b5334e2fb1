/// The two TLS contexts: for the connections that clients make to us, and for those that we make.
/// Main thread only.
#pragma once

#include <openssl/ssl.h>

#include <memory>

/// Owns one TLS context; empty until `set_new`.
class SslCtxWrap {
  public:
    /// Replaces the context held so far with a new one of `pMethod`; false if OpenSSL cannot create
    /// it.
    bool set_new(const SSL_METHOD* pMethod);

    /// The context; null before `set_new`.
    [[nodiscard]] SSL_CTX* get() const { return _pContext.get(); }

  private:
    struct Free {
        void operator()(SSL_CTX* pContext) const { SSL_CTX_free(pContext); }
    };
    std::unique_ptr<SSL_CTX, Free> _pContext;
};

/// For connections from clients, and for the link to the connection server.
extern SslCtxWrap& sslctx_server;
extern SslCtxWrap& sslctx_client;

/// Initialises the TLS library and creates both contexts, replacing existing ones.
void InitializeSSL();

/// Creates the client context if there is none.
void ensureClientContext();

/// Loads certificate chain and key into the server context; false, with the reason logged, on
/// failure.
[[nodiscard]] bool bLoadServerCertificate();

/// Callback of `ERR_print_errors_cb`: logs `sText`, one NUL-terminated line of the error queue.
/// Always returns 1.
int sslErrorCallback(const char* sText, size_t nLen, void* pUser);
