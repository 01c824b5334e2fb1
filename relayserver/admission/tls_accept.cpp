#include "relayserver/admission/tls_accept.h"

#include <openssl/err.h>
#include <unistd.h>

#include "base/clock.h"
#include "base/ip_utils.h"
#include "connserver/logging.h"
#include "relayserver/admission/plain_accept.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "relayserver/sockets/socket_options.h"
#include "relayserver/sockets/ssl_contexts.h"

namespace {

constexpr AcceptTexts kTlsTexts{
    "Warning ssl socket accept call return -1 with error ",
    "No connection with CS, not accepting SSL connect from ",
    "Blocking SSL connection from ",
};

/// A server-side session for `fd`; null, with the errors of the library logged, on failure.
SSL* newSession(int fd) {
    SSL* const pSSL = SSL_new(sslctx_server.get());
    if (pSSL == nullptr || SSL_set_fd(pSSL, fd) != 1) {
        ERR_print_errors_cb(sslErrorCallback, nullptr);
        SSL_free(pSSL);
        return nullptr;
    }
    SSL_set_accept_state(pSSL);
    return pSSL;
}

}  // namespace

void acceptTlsClient() {
    sockaddr_in siPeer{};
    const int fd = nAcceptClient(ssl_listen_sockfd, siPeer, kTlsTexts);
    if (fd == -1) {
        return;
    }
    writeToLog(true, "New SSL client request received from %s(%d)\n",
               sDottedAddress(siPeer).c_str(), nPortOf(siPeer));
    (void)bDisableNagle(fd);  // the connection works without it, with more delay
    SSL* const pSSL = newSession(fd);
    if (pSSL == nullptr) {
        close(fd);
        return;
    }
    Orvex::RelayClient client{Orvex::RelayMessageSocket(fd, siPeer, pSSL)};
    client.SetLastMessageTime(nowSecs());
    makeNonBlocking(fd);
    addToEpollForWrite(fd);
    // Fails, because it is already watched; the handshake sets the interest that it needs.
    addToEpollForRead(fd);
    ctSslHandshakingTable.Add(client);
    writeToLog(true, "Starting SSL handshake on socket %u\n", static_cast<unsigned>(fd));
}
