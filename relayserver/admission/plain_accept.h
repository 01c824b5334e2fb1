/// Takes new plain connections into the loose client table. Main thread only.
#pragma once

#include <netinet/in.h>

/// Accepts one connection from the plain listener. False when there is none or it is refused.
bool acceptPlainClient();

/// Accepts what waits at the plain listener, as much as one pass may take, until one is refused.
void acceptWaitingPlainClients();

/// What the two listeners have in common: accepts one connection. Returns its descriptor; -1 when
/// there is none, refused ones included, with the reason logged. The texts take an errno or an
/// address.
struct AcceptTexts {
    const char* sAcceptFailed;
    const char* sNotAccepting;
    const char* sOverLimit;
};
[[nodiscard]] int nAcceptClient(int fdListener, sockaddr_in& rsiPeer, const AcceptTexts& texts);
