#include "bench/load/relay_adapter.h"

#include "bench/load/give_up.h"
#include "bench/load/log_in.h"
#include "genner/output/CaptionNetMessage.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "genner/output/RelayConnectNetMessage.h"
#include "genner/output/ResponseNetMessage.h"

namespace Load {

namespace {

constexpr unsigned kFirstSourceId = 2'000'000;
constexpr unsigned kFirstOtherId = 3'000'000;
/// The message class of captions in routes.
constexpr int kCaptionClass = 192;
constexpr Orvex::ReturnCode kOk{0};

unsigned nSourceId(int nGroup) {
    return kFirstSourceId + static_cast<unsigned>(nGroup);
}

std::string sFrameFrom(unsigned nClientId, Orvex::NetMessage& rMessage) {
    std::string sFrame;
    rMessage.ChangeSenderID(nClientId);
    rMessage.GetSendBuffer(true, sFrame);
    return sFrame;
}

std::size_t nFrameLen(std::string_view svInput) {
    return 2 * static_cast<std::size_t>(static_cast<unsigned char>(svInput[0]));
}

}  // namespace

Frame makeCaptionFrame(unsigned nClientId, const std::string& sPayload) {
    Orvex::CaptionNetMessage caption;
    caption.SetCaption(sPayload.data(), static_cast<int>(sPayload.size()));
    Frame frame{sFrameFrom(nClientId, caption), 1 + Orvex::NetMessage::nMSG_HDR_LEN};
    if (frame.sBytes.compare(frame.nPayloadAt, sPayload.size(), sPayload) != 0) {
        giveUp("a payload does not fit in a caption unescaped");
    }
    return frame;
}

RelayAdapter::RelayAdapter(const Options& options)
    : sServerAddress(options.sServerAddress),
      bSourcesArePeers(options.bPeer),
      server(options.sServerKeyFile),
      nNextId(kFirstOtherId) {}

std::string RelayAdapter::sLogInFrame(unsigned nClientId) const {
    Orvex::RelayConnectNetMessage connect = server.ticketFor(nClientId);
    return sFrameFrom(nClientId, connect);
}

void RelayAdapter::logIn(Connection& rConnection, unsigned nId) {
    rConnection.nId = nId;
    rConnection.writeAll(sLogInFrame(nId));
    std::string sAnswer;
    while (judgeAnswer(sAnswer) == Answer::kIncomplete) {
        sAnswer += rConnection.sReadSome();
    }
    if (judgeAnswer(sAnswer) == Answer::kRefused) {
        giveUp("the relay did not admit client %u", nId);
    }
    // The relay's confirmations of clients must not fill its link to us.
    server.readAll();
}

void RelayAdapter::becomeSource(Connection& rConnection, int nGroup) {
    logIn(rConnection, nSourceId(nGroup));
    if (bSourcesArePeers) {
        // Relays give each other this answer; it makes the client a relay peer.
        Orvex::ResponseNetMessage response(rConnection.nId, kOk);
        rConnection.writeAll(sFrameFrom(rConnection.nId, response));
    }
}

void RelayAdapter::becomeReceiver(Connection& rConnection, int nGroup) {
    logIn(rConnection, nNextId++);
    server.addRoute(nSourceId(nGroup), rConnection.nId, kCaptionClass);
}

void RelayAdapter::becomeIdle(Connection& rConnection) {
    logIn(rConnection, nNextId++);
}

Frame RelayAdapter::sentFrame(int nGroup, const std::string& sPayload) const {
    return makeCaptionFrame(nSourceId(nGroup), sPayload);
}

Frame RelayAdapter::deliveredFrame(int nGroup, const std::string& sPayload) const {
    return makeCaptionFrame(nSourceId(nGroup), sPayload);
}

std::size_t RelayAdapter::nOtherFrameLen(std::string_view svInput) const {
    if (svInput.size() < 2 || svInput.size() < nFrameLen(svInput)) {
        return 0;
    }
    if (svInput[1] != static_cast<char>(Orvex::HeartbeatNetMessage::nTYPE)) {
        giveUp("a receiver got a message of type %d", static_cast<unsigned char>(svInput[1]));
    }
    return nFrameLen(svInput);
}

std::string RelayAdapter::sKeepAlive(const Connection& connection) const {
    Orvex::HeartbeatNetMessage heartbeat;
    return sFrameFrom(connection.nId, heartbeat);
}

// The relay sends heartbeats to all its clients every four seconds of the wall clock.

}  // namespace Load
