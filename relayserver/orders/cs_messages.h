/// Messages from the connection server after the login. Main thread only.
#pragma once

/// Handles one message: an image of `nMsgLen` bytes, type byte first. May remove clients and may
/// take the link down.
void onServerMessage(const char* achMsg, int nMsgLen);
