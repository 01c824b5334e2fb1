/// What every test of the engine starts from: empty tables, an open epoll set, a clock that stands
/// still, no link, nothing logged.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "genner/output/CaptionNetMessage.h"
#include "genner/output/ChatNetMessage.h"
#include "genner/output/HeartbeatNetMessage.h"
#include "genner/output/StatusKeyPostNetMessage.h"
#include "genner/output/VideoFeedbackNetMessage.h"
#include "genner/output/message_types.h"
#include "orvex/net_message.h"
#include "orvex/relay_client_table.h"

/// Message types and pipes that tests send.
constexpr int kChat = Orvex::ChatNetMessage::nTYPE;
constexpr int kCaption = Orvex::CaptionNetMessage::nTYPE;
constexpr int kHeartbeat = Orvex::HeartbeatNetMessage::nTYPE;
constexpr int kStatus = Orvex::StatusKeyPostNetMessage::nTYPE;
constexpr int kChatPipe = nPipeType(kChat);
constexpr int kCaptionPipe = nPipeType(kCaption);
constexpr int kVideoPipe = nPipeType(Orvex::VideoFeedbackNetMessage::nTYPE);

/// One end of a connected pair of sockets is the relay's; this is the other.
class Peer {
  public:
    explicit Peer(int fd) : _fd(fd) {}
    ~Peer();
    Peer(Peer&& rOther) noexcept : _fd(rOther._fd) { rOther._fd = -1; }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    Peer& operator=(Peer&& rOther) noexcept {
        std::swap(_fd, rOther._fd);
        return *this;
    }

    void sendBytes(const std::string& sBytes) const;
    void send(Orvex::NetMessage& nmMessage) const;
    /// All that has arrived, without waiting.
    [[nodiscard]] std::string sReceived() const;
    /// The images of the frames that have arrived.
    [[nodiscard]] std::vector<std::string> images() const;
    [[nodiscard]] bool bClosedByRelay() const;
    void close();
    /// Closes so that the relay's end reports an error.
    void stopReading() const;
    [[nodiscard]] int fd() const { return _fd; }

  private:
    int _fd;
};

class EngineTest : public testing::Test {
  protected:
    static constexpr std::time_t kNow = 1700000001;

    EngineTest();
    ~EngineTest() override;

    /// An admitted, a loose, a handshaking client with its peer end.
    static Peer addAuthClient(int nClientID);
    static Peer addLooseClient();
    static Peer addHandshaking();
    /// As `addAuthClient`, over TCP, and the peer takes little before it reads: for tests that
    /// count unsent bytes.
    static Peer addTcpAuthClient(int nClientID);
    /// The record of an admitted client; fails the test when there is none.
    static Orvex::RelayClient& authClient(int nClientID);
    static bool bIsAdmitted(int nClientID);
    static int fdOf(int nClientID);

    /// A logged-in link; the peer is the connection server.
    static Peer openLink();

    /// What `nFrom` sends down pipe `nPipe` goes to `to`, as if read from the table before.
    static void route(unsigned nFrom, int nPipe, std::vector<unsigned> to);
    /// Whether the route of `nFrom` and `nPipe` is cached.
    static bool bIsRouteCached(unsigned nFrom, int nPipe);
    /// The statements by which a route between two relays is dissolved: `nFrom` to relay `nTo`.
    static std::vector<std::string> dissolvingStatements(unsigned nFrom, unsigned nTo, int nPipe);

    /// Makes an admitted client a relay peer, and forgets what was logged.
    static void makePeer(int nClientID);

    /// A message of `nType` from `nSender`, with `sPayload` behind the header.
    static std::string sImage(int nType, unsigned nSender, unsigned nDestination,
                              const std::string& sPayload);
    /// The same as a frame.
    static std::string sFrame(const std::string& sImage);
};
