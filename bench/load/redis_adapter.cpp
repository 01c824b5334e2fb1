#include "bench/load/redis_adapter.h"

#include "bench/load/give_up.h"
#include "bench/load/topic.h"

namespace Load {

namespace {

/// A string in the protocol's encoding.
std::string sBulk(std::string_view svText) {
    return "$" + std::to_string(svText.size()) + "\r\n" + std::string(svText) + "\r\n";
}

/// What precedes the payload in a message of three parts.
std::string sHead(std::string_view svFirst, int nGroup, std::size_t nPayload) {
    return "*3\r\n" + sBulk(svFirst) + sBulk(sTopicOf(nGroup)) + "$" + std::to_string(nPayload) +
           "\r\n";
}

}  // namespace

void RedisAdapter::becomeSource(Connection& rConnection, int /*nGroup*/) {
    becomeIdle(rConnection);
}

void RedisAdapter::becomeReceiver(Connection& rConnection, int nGroup) {
    rConnection.writeAll("*2\r\n" + sBulk("SUBSCRIBE") + sBulk(sTopicOf(nGroup)));
    awaitText(rConnection, ":1\r\n");
}

void RedisAdapter::becomeIdle(Connection& rConnection) {
    rConnection.writeAll("*1\r\n" + sBulk("PING"));
    awaitText(rConnection, "+PONG\r\n");
}

Frame RedisAdapter::sentFrame(int nGroup, const std::string& sPayload) const {
    return makeFrame(sHead("PUBLISH", nGroup, sPayload.size()), sPayload, "\r\n");
}

Frame RedisAdapter::deliveredFrame(int nGroup, const std::string& sPayload) const {
    return makeFrame(sHead("message", nGroup, sPayload.size()), sPayload, "\r\n");
}

std::size_t RedisAdapter::nOtherFrameLen(std::string_view /*svInput*/) const {
    giveUp("unknown message from redis-server");
}

}  // namespace Load
