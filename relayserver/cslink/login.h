/// The messages with which the relay logs in to its connection server. Main thread only.
#pragma once

/// Sends the login that answers `nLastChallenge`, encrypted with the server's public key. Returns 4
/// (`WAITING_FOR_LOGIN_RESPONSE`), or -1 if it could not be encrypted or sent: the link is then
/// down and the next server is at the front of `serverQ`.
int SendLogin();

/// Answers a challenge (an image of `nMsgLen` bytes) with a login, even if the relay is already
/// logged in. Returns the stage, or -1 if the link was lost.
int onChallenge(const char* achMsg, int nMsgLen);

/// Handles a message (an image of `nMsgLen` bytes) that the server sends before the login is
/// complete. Returns the stage, or -1 if the link was lost. May remove every client: a server that
/// does not know our session begins a new one.
int onLoginMessage(const char* achMsg, int nMsgLen);
