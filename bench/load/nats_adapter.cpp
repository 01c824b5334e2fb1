#include "bench/load/nats_adapter.h"

#include "bench/load/give_up.h"
#include "bench/load/topic.h"

namespace Load {

namespace {

constexpr std::string_view kPing = "PING\r\n";
constexpr std::string_view kPong = "PONG\r\n";

/// Sends a command and waits until the server has processed it.
void sendCommand(Connection& rConnection, const std::string& sText) {
    rConnection.writeAll(sText + std::string(kPing));
    awaitText(rConnection, kPong);
}

void greet(Connection& rConnection) {
    sendCommand(rConnection, "CONNECT {\"verbose\":false,\"pedantic\":false,\"lang\":\"c\"}\r\n");
}

}  // namespace

void NatsAdapter::becomeSource(Connection& rConnection, int /*nGroup*/) {
    greet(rConnection);
}

void NatsAdapter::becomeReceiver(Connection& rConnection, int nGroup) {
    greet(rConnection);
    sendCommand(rConnection, "SUB " + sTopicOf(nGroup) + " 1\r\n");
}

void NatsAdapter::becomeIdle(Connection& rConnection) {
    greet(rConnection);
}

Frame NatsAdapter::sentFrame(int nGroup, const std::string& sPayload) const {
    return makeFrame("PUB " + sTopicOf(nGroup) + " " + std::to_string(sPayload.size()) + "\r\n",
                     sPayload, "\r\n");
}

Frame NatsAdapter::deliveredFrame(int nGroup, const std::string& sPayload) const {
    return makeFrame("MSG " + sTopicOf(nGroup) + " 1 " + std::to_string(sPayload.size()) + "\r\n",
                     sPayload, "\r\n");
}

std::size_t NatsAdapter::nOtherFrameLen(std::string_view svInput) const {
    const std::string_view svHead = svInput.substr(0, kPing.size());
    if (svHead == kPing || svHead == kPong) {
        return svHead.size();
    }
    if (svHead.size() == kPing.size()) {
        giveUp("unknown line from nats-server");
    }
    return 0;
}

std::string NatsAdapter::sKeepAlive(const Connection& /*connection*/) const {
    return std::string(kPong);
}

}  // namespace Load
