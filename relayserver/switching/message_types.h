/// The message types that the engine itself looks for.
#pragma once

#include "orvex/net_message.h"

inline const Orvex::NetMessageType nmtNetMsgTypeResp(0);
inline const Orvex::NetMessageType nmtNetMsgTypeLogIn(1);
inline const Orvex::NetMessageType nmtNetMsgTypeLogOut(2);
inline const Orvex::NetMessageType nmtNetMsgTypeChat(3);
inline const Orvex::NetMessageType nmtNetMsgTypeCapCommand(6);
inline const Orvex::NetMessageType nmtNetMsgTypeHeartbeat(12);
inline const Orvex::NetMessageType nmtNetMsgTypeChallenge(14);
inline const Orvex::NetMessageType nmtNetMsgTypeConnectOrder(15);
inline const Orvex::NetMessageType nmtNetMsgTypeRoutingUpdate(17);
inline const Orvex::NetMessageType nmtNetMsgTypeRelayConnect(19);
