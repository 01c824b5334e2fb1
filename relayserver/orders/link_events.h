/// What happens to the link to the connection server: its events, and its end. Main thread only.
#pragma once

#include <sys/epoll.h>

/// Handles one event of the link's socket, whatever the stage. May remove clients.
void onLinkEvent(epoll_event& epe);

/// Takes a link that is marked as broken down: its server's last messages are handled, the next
/// server has its turn, at once unless the last attempt is too young. Does nothing for a link that
/// is not marked. To be called between handlers, where nobody holds a client: may remove clients.
void settleBrokenLink();
