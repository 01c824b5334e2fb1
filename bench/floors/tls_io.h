/// Reading and writing for the TCP floors over TLS; the members are those of PlainIo.
#pragma once

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "bench/floors/framing.h"

namespace Floor {

class TlsIo {
  public:
    static constexpr std::size_t kReadSize = 65536;

    TlsIo(const char* sCertificate, const char* sKey) : pContext(SSL_CTX_new(TLS_method())) {
        SSL_CTX_set_mode(pContext, SSL_MODE_ENABLE_PARTIAL_WRITE |
                                       SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER |
                                       SSL_MODE_RELEASE_BUFFERS);
        SSL_CTX_set_read_ahead(pContext, 1);
        if (SSL_CTX_use_certificate_chain_file(pContext, sCertificate) != 1 ||
            SSL_CTX_use_PrivateKey_file(pContext, sKey, SSL_FILETYPE_PEM) != 1) {
            std::fprintf(stderr, "certificate or key cannot be read\n");
            std::exit(EXIT_FAILURE);
        }
    }

    void take(int fd) {
        const auto nIndex = static_cast<std::size_t>(fd);
        if (sessions.size() <= nIndex) {
            sessions.resize(nIndex + 1);
        }
        sessions[nIndex] = SSL_new(pContext);
        SSL_set_fd(sessions[nIndex], fd);
        SSL_set_accept_state(sessions[nIndex]);
    }

    // The handshake is part of the first reads. What is left in the session is read at once,
    // because the kernel does not report it.
    ssize_t nRead(int fd, char* pBuffer, std::size_t nRoom) {
        SSL* const pSession = pSessionOf(fd);
        int nTotal = 0;
        do {
            const int nLeft = static_cast<int>(nRoom) - nTotal;
            const int nGot = SSL_read(pSession, pBuffer + nTotal, nLeft);
            if (nGot <= 0) {
                return nTotal > 0 || bJustNotNow(pSession, nGot) ? nTotal : nClose(fd);
            }
            nTotal += nGot;
        } while (SSL_has_pending(pSession) != 0 && nTotal < static_cast<int>(nRoom));
        return nTotal;
    }

    void sendAll(int fd, std::string_view svData) {
        SSL* const pSession = pSessionOf(fd);
        while (!svData.empty()) {
            const int nSent = SSL_write(pSession, svData.data(), static_cast<int>(svData.size()));
            if (nSent > 0) {
                svData.remove_prefix(static_cast<std::size_t>(nSent));
            } else if (bJustNotNow(pSession, nSent)) {
                awaitRoom(fd);
            } else {
                return;
            }
        }
    }

  private:
    SSL* pSessionOf(int fd) { return sessions[static_cast<std::size_t>(fd)]; }

    static bool bJustNotNow(SSL* pSession, int nResult) {
        const int nError = SSL_get_error(pSession, nResult);
        return nError == SSL_ERROR_WANT_READ || nError == SSL_ERROR_WANT_WRITE;
    }

    ssize_t nClose(int fd) {
        // A client that just disconnects leaves an error in the queue, which would be attributed
        // to the next one.
        ERR_clear_error();
        SSL_free(pSessionOf(fd));
        sessions[static_cast<std::size_t>(fd)] = nullptr;
        close(fd);
        return -1;
    }

    SSL_CTX* pContext;
    std::vector<SSL*> sessions;  ///< by descriptor
};

}  // namespace Floor
