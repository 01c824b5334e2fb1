/// What admitted clients and relay peers send: the few messages that concern the relay itself are
/// handled here, the rest is switched. Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// Reads what a readable client sent and handles its whole messages. The client may be gone
/// afterwards, and so may others.
void readAndSwitch(Orvex::RelayClient& client);

/// Handles one message of `client`. False when a send to some destination failed: the rest of the
/// client's messages then waits for the next pass. The image may lie in the client's own buffer.
/// May remove clients, `client` included.
[[nodiscard]] bool bHandleClientMessage(Orvex::RelayClient& client, const char* achMsg,
                                        int nMsgLen);
