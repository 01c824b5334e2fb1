/// Events of the link to the connection server, and its teardown after a failed send.
/// Main thread only.
#pragma once

#include <sys/epoll.h>

/// Handles one event of the link's socket, at any stage. May remove clients.
void onLinkEvent(epoll_event& epe);

/// Takes down a link that is marked as broken, after handling the last messages from its server,
/// then tries the next server: at once unless the last attempt is too recent. Does nothing if the
/// link is not marked. May remove clients, so call it between handlers, where no pointer to a
/// client is held.
void settleBrokenLink();
