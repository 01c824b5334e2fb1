/// What the connection server says to the logged-in relay. Main thread only.
#pragma once

/// Carries out one message. May remove clients and may take the link down.
void onServerMessage(const char* achMsg, int nMsgLen);
