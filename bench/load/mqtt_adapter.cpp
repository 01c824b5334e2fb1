#include "bench/load/mqtt_adapter.h"

#include "bench/load/give_up.h"
#include "bench/load/topic.h"

namespace Load {

namespace {

constexpr char kConnect = 0x10;
constexpr char kPublish = 0x30;
constexpr char kSubscribe = static_cast<char>(0x82);
constexpr std::size_t kConnectAckLen = 4;
constexpr std::size_t kSubscribeAckLen = 5;

/// A text preceded by its length in two bytes.
std::string sText(std::string_view svText) {
    std::string sResult{static_cast<char>(svText.size() >> 8),
                        static_cast<char>(svText.size() & 0xFF)};
    return sResult.append(svText);
}

/// The first byte of a packet and the length of what follows: seven bits per byte, low ones first.
std::string sFixedHeader(char chFirst, std::size_t nRest) {
    std::string sResult{chFirst};
    do {
        const std::size_t nMore = nRest >> 7;
        sResult += static_cast<char>((nRest & 0x7F) | (nMore > 0 ? 0x80U : 0U));
        nRest = nMore;
    } while (nRest > 0);
    return sResult;
}

std::string sPacket(char chFirst, const std::string& sRest) {
    return sFixedHeader(chFirst, sRest.size()) + sRest;
}

void connectAs(Connection& rConnection, int nClient) {
    // Protocol level 4, a clean session, no keep-alive time.
    const std::string sVariable = sText("MQTT") + std::string{4, 2, 0, 0};
    rConnection.writeAll(sPacket(kConnect, sVariable + sText("load" + std::to_string(nClient))));
    const std::string sAnswer = awaitBytes(rConnection, kConnectAckLen);
    if (sAnswer[3] != 0) {
        giveUp("mosquitto refused a client");
    }
}

}  // namespace

void MqttAdapter::becomeSource(Connection& rConnection, int /*nGroup*/) {
    connectAs(rConnection, nNextClient++);
}

void MqttAdapter::becomeReceiver(Connection& rConnection, int nGroup) {
    connectAs(rConnection, nNextClient++);
    const std::string sPacketId{0, 1};
    const std::string sQuality(1, '\0');
    rConnection.writeAll(sPacket(kSubscribe, sPacketId + sText(sTopicOf(nGroup)) + sQuality));
    (void)awaitBytes(rConnection, kSubscribeAckLen);
}

void MqttAdapter::becomeIdle(Connection& rConnection) {
    connectAs(rConnection, nNextClient++);
}

Frame MqttAdapter::sentFrame(int nGroup, const std::string& sPayload) const {
    const std::string sTopic = sText(sTopicOf(nGroup));
    return makeFrame(sFixedHeader(kPublish, sTopic.size() + sPayload.size()) + sTopic, sPayload,
                     "");
}

Frame MqttAdapter::deliveredFrame(int nGroup, const std::string& sPayload) const {
    return sentFrame(nGroup, sPayload);
}

std::size_t MqttAdapter::nOtherFrameLen(std::string_view /*svInput*/) const {
    giveUp("unknown packet from mosquitto");
}

}  // namespace Load
