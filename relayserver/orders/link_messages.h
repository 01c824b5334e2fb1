/// Splits the input from the connection server into messages, during the login and after it.
/// Main thread only.
#pragma once

/// Handles the messages buffered on the link, at any stage, until none is left or the link is lost.
/// Returns the stage, or -1 if the link was lost. May remove clients.
int handleLinkMessages();

/// Handles what the server sent before the link was marked as broken. The link may be down
/// afterwards. May remove clients.
void readLastServerMessages();
