#include "relayserver/admission/tls_handshake.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cerrno>
#include <string>

#include "base/get_strerror.h"
#include "base/string_format.h"
#include "connserver/logging.h"
#include "relayserver/clients/client_removal.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/ssl_contexts.h"

using Orvex::RelayClient;

namespace {

void finishHandshake(RelayClient& client, int fd) {
    writeToLog(true, "Completed SSL handshake on socket %u\n", static_cast<unsigned>(fd));
    ctLooseClientTable.Add(client);
    (void)ctSslHandshakingTable.bDelete(client);  // moved, not closed
    removeFromEpoll(fd);
    addToEpollForRead(fd);
    offerAgain(fd);  // input that came with the end of the handshake may already be in the session
}

std::string sFailureReason(int nError, int nSystemError) {
    if (nError == SSL_ERROR_SSL) {
        ERR_print_errors_cb(sslErrorCallback, nullptr);
        return "SSL_ERROR_SSL, see callback above";
    }
    if (nError == SSL_ERROR_SYSCALL) {
        ERR_print_errors_cb(sslErrorCallback, nullptr);
        return "SSL_ERROR_SYSCALL, see callback above, errno=" + get_strerror(nSystemError);
    }
    return string_format("SSL error code %d", nError);
}

}  // namespace

void stepTlsHandshake(RelayClient& client) {
    const int fd = client.GetMessageSocket()->getMsgSockFileDesc();
    SSL* const pSSL = client.GetMessageSocket()->getSSLPtr();
    ERR_clear_error();
    const int nResult = SSL_do_handshake(pSSL);
    const int nSystemError = errno;
    if (nResult == 1) {
        finishHandshake(client, fd);
        return;
    }
    const int nError = SSL_get_error(pSSL, nResult);
    removeFromEpoll(fd);
    if (nError == SSL_ERROR_WANT_WRITE) {
        addToEpollForWrite(fd);
    } else if (nError == SSL_ERROR_WANT_READ) {
        addToEpollForRead(fd);
    } else {
        writeToLog(true, "SSL handshake failed on socket %u: %s\n", static_cast<unsigned>(fd),
                   sFailureReason(nError, nSystemError).c_str());
        DeleteClient(ctSslHandshakingTable, client, LeaveReason::kHandshakeFailed);
    }
}
