/// Many messages of a client that are read at once: each is handled as if it had come alone.
#include <sys/socket.h>

#include "base/clock.h"
#include "base/string_format.h"
#include "genner/output/LogOutNetMessage.h"
#include "genner/output/VideoFeedbackNetMessage.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/clients/video_gate.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/routes/RoutingCache.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/socket_options.h"
#include "relayserver/switching/client_messages.h"
#include "relayserver/switching/switch_packet.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using Tessel_Routing::RouteEntry;
using Tessel_Routing::RoutingCache;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr int kDirect = 9;

class ClientBursts : public EngineTest {
  protected:
    ClientBursts() : server(openLink()), peer7(addAuthClient(7)), peer8(addAuthClient(8)) {
        for (const int nPipe : {kVideoPipe, kChatPipe, kCaptionPipe}) {
            route(7, nPipe, {8});
        }
    }

    void sendAll(const std::vector<std::string>& images) const {
        std::string sAll;
        for (const std::string& sMessage : images) {
            sAll += sFrame(sMessage);
        }
        peer7.sendBytes(sAll);
    }

    /// Client 7 has sent these messages at once; the relay notices.
    void receive(const std::vector<std::string>& images) const {
        sendAll(images);
        readAndSwitch(authClient(7));
    }

    static std::string sCaption(int i, unsigned nSender = 7) {
        return sImage(kCaption, nSender, 0, string_format("%06d", i));
    }

    static std::vector<std::string> captions(int nCount) {
        std::vector<std::string> found;
        for (int i = 0; i < nCount; ++i) {
            found.push_back(sCaption(i));
        }
        return found;
    }

    static std::string sVideo(unsigned char nPage) {
        Orvex::VideoFeedbackNetMessage vfnm;
        vfnm.SetPageMarker(nPage, 2);
        vfnm.SetPayload("picture", 7);
        vfnm.ChangeSenderID(7);
        return std::string(vfnm.frame().substr(1));
    }

    /// The block that all clients are read into; no client holds it between reads.
    static unsigned char* pSpareBlock() {
        Orvex::InputBuffer buffer;
        (void)buffer.nMakeRoom(Orvex::InputBuffer::kBlockSize);
        return buffer.pTail();
    }

    static std::string sLogOut() {
        Orvex::LogOutNetMessage lonm;
        lonm.ChangeSenderID(7);
        return std::string(lonm.frame().substr(1));
    }

    const Peer server;
    const Peer peer7;
    const Peer peer8;
};

TEST_F(ClientBursts, ThousandsComeInFewReadsAndAllArrive) {
    const std::vector<std::string> sent = captions(8000);  // 128000 bytes: two reads
    sendAll(sent);
    std::vector<std::string> got;
    for (int nRead = 0; nRead < 2; ++nRead) {
        readAndSwitch(authClient(7));
        EXPECT_FALSE(bTurnsWaiting()) << "the kernel announces the rest";
        for (std::string& rImage : peer8.images()) {
            got.push_back(std::move(rImage));
        }
    }
    EXPECT_EQ(sent, got);
}

TEST_F(ClientBursts, AnyMixtureKeepsItsOrderForEachDestination) {
    videoPermissions.Grant(7, 8);
    receive({sCaption(1), sCaption(2), sImage(kChat, 7, 0, "ab"), sImage(kDirect, 7, 8, "cd"),
             sCaption(3), sImage(kStatus, 7, 0, "ef"), sVideo(1), sCaption(4), sVideo(2),
             sImage(kHeartbeat, 7, 0, ""), sCaption(5), sCaption(6), sImage(kStatus, 7, 0, "gh"),
             sLogOut(), sCaption(7)});
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(1), sCaption(2), sImage(kChat, 7, 0, "ab"),
                                            sImage(kDirect, 7, 8, "cd"), sCaption(3), sVideo(1),
                                            sCaption(4), sVideo(2), sCaption(5), sCaption(6)));
    EXPECT_THAT(server.images(),
                ElementsAre(sImage(kStatus, 7, 0, "ef"), sImage(kStatus, 7, 0, "gh"), sLogOut()));
    EXPECT_FALSE(bIsAdmitted(7));
}

TEST_F(ClientBursts, EachMessageRenewsTheTimeAndCountsItsBytes) {
    receive({sCaption(1), sCaption(2), sImage(kChat, 7, 0, "ab"), sCaption(3)});
    EXPECT_EQ(3U * 15 + 11, authClient(7).GetTcpInputByteCounter());
    advanceClockForTest(10);
    receive(captions(100));
    EXPECT_EQ(3U * 15 + 11 + 100 * 15, authClient(7).GetTcpInputByteCounter());
    long tLast = 0;
    authClient(7).GetLastMessageTime(tLast);
    EXPECT_EQ(kNow + 10, tLast);
}

TEST_F(ClientBursts, AMessageInAnothersNameIsLeftOutOfTheRun) {
    route(9, kCaptionPipe, {8});
    receive({sCaption(1), sCaption(2), sCaption(3, 9), sCaption(4), sCaption(5)});
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(1), sCaption(2), sCaption(4), sCaption(5)));
    EXPECT_THAT(loggedLines(), ElementsAre("Message with invalid sender id string 9 and len 15 "
                                           "passed from client 7, ignoring message\n"));
    EXPECT_EQ(5U * 15, authClient(7).GetTcpInputByteCounter());
}

TEST_F(ClientBursts, ARelayPeerMayMixSourcesThatGoToDifferentPlaces) {
    MarkAsRelay(authClient(7));
    loggedLines().clear();
    const Peer peer9 = addAuthClient(9);
    route(41, kCaptionPipe, {8});
    route(42, kCaptionPipe, {9, 8});
    receive({sCaption(1, 41), sCaption(2, 41), sCaption(3, 42), sCaption(4, 41), sCaption(5, 42),
             sCaption(6, 42)});
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(1, 41), sCaption(2, 41), sCaption(3, 42),
                                            sCaption(4, 41), sCaption(5, 42), sCaption(6, 42)));
    EXPECT_THAT(peer9.images(), ElementsAre(sCaption(3, 42), sCaption(5, 42), sCaption(6, 42)));
}

TEST_F(ClientBursts, ABurstOfARelayPeerDissolvesALoopOnce) {
    MarkAsRelay(authClient(7));
    MarkAsRelay(authClient(8));
    loggedLines().clear();
    receive(captions(100));
    EXPECT_THAT(peer8.images(), IsEmpty());
    EXPECT_EQ(1U, nLoggedContaining("suppressing possible relay loop"));
}

TEST_F(ClientBursts, AfterAFailedSendTheRestWaitsForTheNextPass) {
    const Peer peer9 = addAuthClient(9);
    peer8.stopReading();
    route(7, kCaptionPipe, {8, 9});
    route(7, kChatPipe, {9});
    videoPermissions.Grant(7, 9);
    route(7, kVideoPipe, {9});
    receive({sCaption(1), sCaption(2), sVideo(1), sImage(kChat, 7, 0, "ab"), sCaption(3)});
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_THAT(peer9.images(), ElementsAre(sCaption(1), sCaption(2)));
    ASSERT_TRUE(bTurnsWaiting());
    EXPECT_EQ(2U * 15, authClient(7).GetTcpInputByteCounter()) << "the rest is not read yet";
    peer7.sendBytes(sFrame(sCaption(4)));
    readAndSwitch(authClient(7));
    EXPECT_THAT(peer9.images(),
                ElementsAre(sVideo(1), sImage(kChat, 7, 0, "ab"), sCaption(3), sCaption(4)));
}

TEST_F(ClientBursts, TheLastWordsOfAClientReachItBeforeItsDescriptorCloses) {
    route(7, kCaptionPipe, {7, 8});
    receive({sCaption(1), sCaption(2), sLogOut()});
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_THAT(peer7.images(), ElementsAre(sCaption(1), sCaption(2)));
    EXPECT_TRUE(peer7.bClosedByRelay());
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(1), sCaption(2)));
    EXPECT_THAT(server.images(), ElementsAre(sLogOut()));
}

TEST_F(ClientBursts, WhatWaitsAtADestinationOutlivesItsLogOut) {
    const Peer peer9 = addTcpAuthClient(9);
    bIncreaseSockTxBuf(fdOf(9), 1000000);
    route(7, kCaptionPipe, {9});
    std::vector<std::string> sent;
    for (int i = 0; i < 120; ++i) {
        sent.push_back(sImage(kCaption, 7, 0, string_format("%06d", i) + std::string(492, 'x')));
    }
    receive(sent);
    Orvex::LogOutNetMessage lonm;
    lonm.ChangeSenderID(9);
    peer9.send(lonm);
    readAndSwitch(authClient(9));
    ASSERT_FALSE(bIsAdmitted(9));
    std::string sGot;
    std::string sChunk(65536, '\0');
    ssize_t nRead = 0;
    while ((nRead = recv(peer9.fd(), sChunk.data(), sChunk.size(), 0)) > 0) {
        sGot.append(sChunk, 0, static_cast<size_t>(nRead));
    }
    std::string sExpected;
    for (const std::string& sMessage : sent) {
        sExpected += sFrame(sMessage);
    }
    EXPECT_EQ(0, nRead) << "the end of the stream";
    EXPECT_EQ(sExpected, sGot);
}

TEST_F(ClientBursts, APartOfAFrameWaitsOutsideTheBlockAndNothingInNoMemory) {
    const std::string sAll = sFrame(sCaption(1)) + sFrame(sCaption(2));
    const unsigned char* const pBlock = pSpareBlock();
    peer7.sendBytes(sAll.substr(0, 20));
    readAndSwitch(authClient(7));
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(1)));
    EXPECT_EQ(pBlock, pSpareBlock()) << "the next one reads into it";
    EXPECT_EQ(4, authClient(7).GetMessageSocket()->input().size());
    peer7.sendBytes(sAll.substr(20));
    readAndSwitch(authClient(7));
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(2)));
    EXPECT_EQ(nullptr, authClient(7).GetMessageSocket()->input().pTail());
}

TEST_F(ClientBursts, AZeroByteDiscardsWhatIsBehindItAndNothingElse) {
    peer7.sendBytes(sFrame(sCaption(1)) + sFrame(sCaption(2)) + std::string(1, '\0') +
                    sFrame(sCaption(3)));
    readAndSwitch(authClient(7));
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(1), sCaption(2)));
    receive({sCaption(4)});
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(4)));
}

TEST_F(ClientBursts, AMessageTooLargeToBeSentOnIsLeftOutOfTheRun) {
    receive({sCaption(1), sImage(kCaption, 7, 0, std::string(500, 'x')), sCaption(2)});
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(1), sCaption(2)));
    EXPECT_TRUE(bIsAdmitted(8));
}

/// Client 10 has room for much and takes little before it reads.
class VideoBehindABurst : public ClientBursts {
  protected:
    VideoBehindABurst() : peer10(addTcpAuthClient(10)) {
        bIncreaseSockTxBuf(fdOf(10), 4 * kMaxVideoFullness);
        videoPermissions.Grant(7, 10);
        route(7, kVideoPipe, {10});
        route(7, kCaptionPipe, {10});
        // What the peer's small window takes does not wait.
        const std::string sFill(kMaxVideoFullness - 20000, 'f');
        EXPECT_LT(0, send(fdOf(10), sFill.data(), sFill.size(), 0));
        loggedLines().clear();
    }

    /// Captions of 40000 bytes.
    static std::vector<std::string> burst() {
        return std::vector<std::string>(80, sImage(kCaption, 7, 0, std::string(490, 'x')));
    }

    static size_t nThrottled() {
        return nLogged(
            "INFO: throttling video frames to client 10 due to its outstanding TCP "
            "buffer size\n");
    }

    const Peer peer10;
};

TEST_F(VideoBehindABurst, IsDroppedForWhatTheBurstLeftWaiting) {
    std::vector<std::string> sent = burst();
    sent.push_back(sVideo(1));
    sent.push_back(sVideo(2));
    receive(sent);
    EXPECT_EQ(1U, nThrottled());
    EXPECT_TRUE(authClient(10).IsVideoThrottled());
    EXPECT_EQ(80, nPacketsSwitched);
}

TEST_F(VideoBehindABurst, PassesWhenItIsAheadOfTheBurst) {
    std::vector<std::string> sent = burst();
    sent.insert(sent.begin(), sVideo(1));
    sent.push_back(sVideo(2));  // a frame that has started is sent whole
    receive(sent);
    EXPECT_EQ(0U, nThrottled());
    EXPECT_EQ(82, nPacketsSwitched);
}

}  // namespace
