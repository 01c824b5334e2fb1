/// A TLS client and the certificate of the server it talks to.
#pragma once

#include <openssl/ssl.h>

#include <memory>
#include <string>

#include "tests/unit/relayserver/temp_folder.h"

/// Writes a self-signed certificate and its key as PEM files.
void writeCertificate(const std::string& sCertificateFile, const std::string& sPrivateKeyFile);

/// Prepares `sslctx_server` with a certificate of its own, as start-up does.
void prepareServerContext();

/// The client's side of a TLS connection over a descriptor, which it does not own.
class TlsPeer {
  public:
    explicit TlsPeer(int fd);

    /// One step of the handshake; true when it is finished.
    bool bStepHandshake();
    void sendBytes(const std::string& sBytes);
    /// What arrives within some seconds, decrypted: at least one byte unless the relay closed.
    std::string sReceive();
    [[nodiscard]] SSL* get() const { return _pSSL.get(); }

  private:
    struct Free {
        void operator()(SSL* pSSL) const { SSL_free(pSSL); }
        void operator()(SSL_CTX* pContext) const { SSL_CTX_free(pContext); }
    };
    std::unique_ptr<SSL_CTX, Free> _pContext;
    std::unique_ptr<SSL, Free> _pSSL;
};
