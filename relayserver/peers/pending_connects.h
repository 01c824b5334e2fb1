/// Outgoing connects to other relays, from the order to our log-in. Main thread only.
#pragma once

#include <sys/epoll.h>

#include "genner/output/ConnectOrderNetMessage.h"
#include "orvex/relay_client.h"

/// Starts the connect that `order` requests. A pending connect to the same address continues with
/// the new ticket; one to another address is replaced. A failure is logged and ends the order.
void startPeerConnect(const Orvex::ConnectOrderNetMessage& order);

/// If the event belongs to a pending connect, sends the log-in, or cleans up if that fails or a
/// link exists already; false if it does not. `nIndex` is not used.
[[nodiscard]] bool bHandlePendingConnect(epoll_event& epe, int nIndex);

/// Answers an order to connect to a relay that is already connected: marks the admitted `client` as
/// a peer and confirms it to the connection server.
void confirmExistingPeer(Orvex::RelayClient& client);

/// Two relays that connect to each other at the same time would each close the connection that it
/// made in favour of the other. True if we have just logged in to relay `nPeerID` and that link is
/// kept, because our id is the lower of the two.
[[nodiscard]] bool bOwnLoginTakesPrecedence(unsigned nPeerID);
