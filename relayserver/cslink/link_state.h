/// The state of the link to the connection server. Everybody may read the variables; only the
/// functions below change them. Main thread only.
#pragma once

#include <openssl/ssl.h>

#include <ctime>
#include <string>

#include "orvex/relay_message_socket.h"

enum connection_stage_t {
    CONNECTION_IDLE = 0,             ///< no socket; the next call starts a connect
    WAITING_FOR_CONNECT = 1,         ///< connect issued, waiting for writability
    SSL_HANDSHAKE = 2,               ///< TLS client handshake in progress
    WAITING_FOR_CHALLENGE = 3,       ///< connected, waiting for the challenge number
    WAITING_FOR_LOGIN_RESPONSE = 4,  ///< login sent, waiting for the response
    CONNECTION_FINISHED = 353,       ///< logged in, relay port sent: normal traffic
};

extern connection_stage_t nConnectionStage;

/// The server of the last login that was not a continuation.
extern std::string sLastServer;

/// The link's descriptor (0 for none), its TLS session (null for none) and the message socket over
/// both. The socket owns neither.
extern int connserv_sockfd;
extern SSL* connserv_ssl;
extern Orvex::RelayMessageSocket msConnServMsgSock;

/// A send on the link has failed; see `markLinkBroken`.
extern bool bMarkedBroken;

/// The last challenge received.
extern int nLastChallenge;
/// Whether the next login asks to continue the session of an earlier one.
extern bool bLoginContinue;
/// Whether new clients are accepted; false only while there is no server to tell of them.
extern bool bAccepting;

/// Last message from the server, start of the last attempt, last loss of the link (seconds).
extern std::time_t ttLastConnServMsg;
extern std::time_t ttLastCSConnectAttempt;
extern std::time_t ttConnectLost;

/// Least number of seconds between two attempts.
extern unsigned connectRetry_secs;

/// The attempt or the log-in has come as far as `stage`.
void enterStage(connection_stage_t stage);

/// A connect to `siServer` is under way on `fd`: the link takes it over and waits for it.
void adoptSocket(int fd, const sockaddr_in& siServer);

/// The link goes on over the TLS session `pSSL` on its socket, which it takes over.
void adoptSession(SSL* pSSL);

/// An attempt begins, a message of the server has come, at `ttNow`.
void noteAttempt(std::time_t ttNow);
void noteServerHeard(std::time_t ttNow);

/// The server asks for a login that answers `nChallenge`.
void noteChallenge(int nChallenge);

/// The relay has logged in: later logins ask to continue this session.
void noteLoggedIn();
/// A server does not know the session: the next login asks for a new one.
void forgetSession();
/// A new session has begun with server `sServer`.
void noteSessionWith(const std::string& sServer);

/// Lets new clients in, or keeps them out because there is no server to tell of them.
void letClientsIn(bool bIn);

/// Marks the link as broken: nothing is sent on it any more, and the loop takes it down once the
/// handler that is running has returned (`settleBrokenLink`). The stage stays until then. Callers
/// deep inside a send therefore lose nothing that they hold.
void markLinkBroken();

/// Whether the link is marked as broken and still up.
[[nodiscard]] inline bool bLinkMarkedBroken() {
    return bMarkedBroken;
}

/// Whether messages may be sent to the server: logged in, and not marked as broken.
[[nodiscard]] inline bool bLinkFinished() {
    return nConnectionStage == CONNECTION_FINISHED && !bMarkedBroken;
}

/// Takes the link down, whatever its stage; clients stay connected. Harmless without a link.
void LostConnectionToCS();

/// As `LostConnectionToCS` for an attempt that has already been given up in the log.
void closeLink();

/// Puts everything back to its state at process start.
void resetLinkStateForTest();
