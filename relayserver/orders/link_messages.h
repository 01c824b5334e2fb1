/// Cuts what the connection server sends into messages, during the log-in and after it.
/// Main thread only.
#pragma once

/// Handles the messages that the link holds, whatever its stage, until none is left or the link is
/// lost. Returns the stage, or -1 when the link was lost. May remove clients.
int handleLinkMessages();

/// The link has failed and is marked as broken: handles what the server sent before that. The link
/// may be down afterwards. May remove clients.
void readLastServerMessages();
