/// Connects to other relays, from the order to our log-in there. Main thread only.
#pragma once

#include <sys/epoll.h>

#include "genner/output/ConnectOrderNetMessage.h"
#include "orvex/relay_client.h"

/// Starts the connect that `order` asks for. One to the same place that is under way already goes
/// on, with the new ticket; one to another place is given up for it. What fails is logged and ends
/// the order.
void startPeerConnect(const Orvex::ConnectOrderNetMessage& order);

/// True when the event is one of a pending connect: the log-in has been sent then, or the attempt
/// has been cleaned up.
[[nodiscard]] bool bHandlePendingConnect(epoll_event& epe, int nIndex);

/// What an order to connect to a relay that is connected already comes to: `client`, the admitted
/// relay, is marked as a peer and confirmed to the connection server.
void confirmExistingPeer(Orvex::RelayClient& client);

/// Two relays that connect to each other at once would each close the connection of its own making
/// in favour of the other's. True when we have just logged in to relay `nPeerID` and that is the
/// link that stands, because our id is the lower of the two.
[[nodiscard]] bool bOwnLoginGoesFirst(unsigned nPeerID);
