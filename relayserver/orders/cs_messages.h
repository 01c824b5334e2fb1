/// The established link: its events and the orders that come over it. Main thread only.
#pragma once

#include <sys/epoll.h>

/// Handles one event of the link's socket, whatever the stage.
void onLinkEvent(epoll_event& epe);

/// The link has failed and is marked as broken: handles what the server sent before that. The link
/// may be down afterwards.
void readLastServerMessages();

/// Takes a link that is marked as broken down: its server's last messages are handled, the next
/// server has its turn, at once unless the last attempt is too young. Does nothing for a link that
/// is not marked. To be called between handlers, where nobody holds a client: may remove clients.
void settleBrokenLink();

/// One message from the server to the logged-in relay. May remove clients and may take the link
/// down.
void onServerMessage(const char* achMsg, int nMsgLen);
