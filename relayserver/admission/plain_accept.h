/// Accepts plain connections into the loose client table. Main thread only.
#pragma once

#include <netinet/in.h>

/// Accepts one connection from the plain listener. False if there is none or it is refused.
bool bAcceptPlainClient();

/// Accepts the connections that wait at the plain listener, up to a limit per pass, until one is
/// refused.
void acceptWaitingPlainClients();

/// The log texts of a listener; an errno or an address is appended.
struct AcceptTexts {
    const char* sAcceptFailed;
    const char* sNotAccepting;
    const char* sOverLimit;
};

/// Accepts one connection from either listener and stores the peer's address. Returns the
/// descriptor; -1 if there is none or it is refused, with the reason logged (a lack of descriptors
/// only once).
[[nodiscard]] int nAcceptClient(int fdListener, sockaddr_in& rsiPeer, const AcceptTexts& texts);
