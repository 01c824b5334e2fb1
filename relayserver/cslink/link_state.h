/// The state of the link to the connection server. Any code may read the variables, but only the
/// functions below change them. Main thread only.
#pragma once

#include <openssl/ssl.h>

#include <ctime>
#include <string>

#include "orvex/relay_message_socket.h"

/// The stages of the link, in the order of an attempt.
enum connection_stage_t {
    CONNECTION_IDLE = 0,             ///< no socket; the next call starts a connect
    WAITING_FOR_CONNECT = 1,         ///< connect issued, waiting for writability
    SSL_HANDSHAKE = 2,               ///< TLS client handshake in progress
    WAITING_FOR_CHALLENGE = 3,       ///< connected, waiting for the challenge number
    WAITING_FOR_LOGIN_RESPONSE = 4,  ///< login sent, waiting for the response
    CONNECTION_FINISHED = 353,       ///< logged in, relay port sent: normal traffic
};

/// The current stage.
extern connection_stage_t nConnectionStage;

/// The server of the last login that was not a continuation.
extern std::string sLastServer;

/// The link's descriptor (0 for none), its TLS session (null for none), and the message socket that
/// uses both without owning them.
extern int connserv_sockfd;
extern SSL* connserv_ssl;
extern Orvex::RelayMessageSocket msConnServMsgSock;

/// A send on the link has failed; see `markLinkBroken`.
extern bool bMarkedBroken;

/// The last challenge received.
extern int nLastChallenge;
/// Whether the next login asks to continue the session of an earlier one.
extern bool bLoginContinue;
/// Whether new clients are accepted; false only while there is no server to report them to.
extern bool bAccepting;

/// Time of the last message from the server, of the start of the last attempt, and of the last loss
/// of the link (seconds since the epoch).
extern std::time_t ttLastConnServMsg;
extern std::time_t ttLastCSConnectAttempt;
extern std::time_t ttConnectLost;

/// Minimum number of seconds between two attempts.
extern unsigned connectRetry_secs;

/// The attempt or log-in has reached `stage`.
void enterStage(connection_stage_t stage);

/// A connect to `siServer` is in progress on `fd`: the link takes over the descriptor and waits for
/// the connect to complete.
void adoptSocket(int fd, const sockaddr_in& siServer);

/// The link continues over the TLS session `pSSL` (may be null) on its socket, and owns the
/// session.
void adoptSession(SSL* pSSL);

/// Note that an attempt began, or that a message from the server arrived, at `ttNow`.
void noteAttempt(std::time_t ttNow);
void noteServerHeard(std::time_t ttNow);

/// The next login must answer the challenge `nChallenge`.
void noteChallenge(int nChallenge);

/// The relay has logged in: later logins ask to continue this session.
void noteLoggedIn();
/// A server does not know the session: the next login asks for a new one.
void forgetSession();
/// A new session has begun with server `sServer`.
void noteSessionWith(const std::string& sServer);

/// Sets whether new clients are accepted.
void setAccepting(bool bNewClients);

/// Marks the link as broken: nothing more is sent on it, and the event loop takes it down
/// (`settleBrokenLink`) after the current handler has returned. The stage does not change until
/// then. Pointers held by callers deep inside a send therefore stay valid.
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

/// Like `LostConnectionToCS`, for an attempt whose failure is already logged: logs nothing and does
/// not count as a loss of the link.
void closeLink();

/// Puts everything back to its state at process start.
void resetLinkStateForTest();
