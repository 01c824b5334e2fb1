/// Messages from admitted clients and relay peers: the few that concern the relay itself are
/// handled here, all others are switched. Main thread only.
#pragma once

#include "orvex/relay_client.h"

/// Reads from a readable client and handles its complete messages. Removes destinations to which a
/// send fails, and `client` when it is one, has logged out or is lost.
void readAndSwitch(Orvex::RelayClient& client);

/// Handles one message of `client`: an image of `nMsgLen` bytes, type byte first, which may lie in
/// the client's own buffer. Returns false if a send to some destination failed: the client's
/// remaining messages then wait for the next pass. Removes those destinations, and `client`
/// when it is one or has logged out.
[[nodiscard]] bool bHandleClientMessage(Orvex::RelayClient& client, const char* achMsg,
                                        int nMsgLen);
