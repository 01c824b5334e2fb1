/// Images as texts, for tests of messages.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "orvex/net_message.h"

/// A whole image: type, sender 7, destination 9 and the payload.
inline std::string imageWith(int nType, std::string_view svPayload) {
    std::string sImage(1, static_cast<char>(nType));
    sImage += std::string("\x07\0\0\0\x09\0\0\0", 8);
    sImage += svPayload;
    return sImage;
}

/// The image as it is, unpacked or not.
inline std::string imageOf(const Orvex::NetMessage& rMessage) {
    std::string sImage(Orvex::NetMessage::nMAX_PADDED_MSG_LEN, '\0');
    int nLen = 0;
    rMessage.ToChars(sImage.data(), &nLen);
    sImage.resize(static_cast<std::size_t>(nLen));
    return sImage;
}

inline std::string payloadOf(const Orvex::NetMessage& rMessage) {
    const std::string sImage = imageOf(rMessage);
    return sImage.size() < 9 ? std::string() : sImage.substr(9);
}

/// A message received from exactly these bytes of the heap, so that a read beyond them is seen.
template <class Message>
Message receivedFrom(const std::string& sImage) {
    const std::vector<char> exact(sImage.begin(), sImage.end());
    return Message(exact.data(), static_cast<int>(exact.size()));
}

/// A message received with this payload.
template <class Message>
Message received(std::string_view svPayload) {
    return receivedFrom<Message>(imageWith(static_cast<int>(Message::nTYPE), svPayload));
}
