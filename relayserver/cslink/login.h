/// The messages by which the relay logs in to its connection server. Main thread only.
#pragma once

/// Sends the login that answers `nLastChallenge`, encrypted under the server's public key. Returns
/// 4 (`WAITING_FOR_LOGIN_RESPONSE`), or -1 when it could not be encrypted or sent: the link is down
/// then and the next server is in front.
int SendLogin();

/// A challenge: answers it with a login, also when the relay is logged in already. Returns the
/// stage or -1.
int onChallenge(const char* achMsg, int nMsgLen);

/// A message of the server while the link is not finished. Returns the stage, or -1 when the link
/// was lost. May remove every client: a server that does not know our session begins a new one.
int onLoginMessage(const char* achMsg, int nMsgLen);
