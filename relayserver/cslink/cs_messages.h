/// The established link: its events and the orders that come over it. Main thread only.
#pragma once

#include <sys/epoll.h>

/// Handles one event of the link's socket, whatever the stage.
void onLinkEvent(epoll_event& epe);

/// The link has failed: handles what the server sent before that, and sends nothing more on it. The
/// link may be down afterwards.
void readLastServerMessages();

/// One message from the server to the logged-in relay. May remove clients and may take the link
/// down.
void onServerMessage(const char* achMsg, int nMsgLen);
