#include "relayserver/audio/send_batch.h"

#include <cerrno>
#include <deque>

#include "base/string_format.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/send_buffer.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class SendBatch : public AudioTest {
  protected:
    /// Queues for a socket; the bytes stay.
    void queue(const std::string& sBytes, const sockaddr_in& siTo, int fd = udp_listen_sockfd[0]) {
        queueAll({sBytes}, siTo, fd);
    }

    /// The same for several of one length.
    void queueAll(const std::vector<std::string>& datagrams, const sockaddr_in& siTo,
                  int fd = udp_listen_sockfd[0]) {
        kept.push_back(datagrams);
        std::vector<iovec>& rParts = parts.emplace_back();
        for (std::string& rDatagram : kept.back()) {
            rParts.push_back({rDatagram.data(), rDatagram.size()});
        }
        queueDatagrams(fd, rParts.data(), rParts.size(), siTo);
    }

    static sockaddr_in siBroadcast() {
        sockaddr_in siResult = siLoopbackHost(1, 6900);
        siResult.sin_addr.s_addr = INADDR_BROADCAST;
        return siResult;
    }

    const Station one{2};
    const Station two{3};

  private:
    std::deque<std::vector<std::string>> kept;
    std::deque<std::vector<iovec>> parts;
};

TEST_F(SendBatch, SendsNothingBeforeTheFlush) {
    queue("a", one.siAddress());
    EXPECT_THAT(one.received(), IsEmpty());
    flushDatagrams();
    EXPECT_THAT(one.received(), ElementsAre("a"));
    flushDatagrams();
    EXPECT_THAT(one.received(), IsEmpty());
}

TEST_F(SendBatch, KeepsTheOrderForEachReceiver) {
    for (int i = 0; i < 5; ++i) {
        queue(string_format("one %d", i), one.siAddress());
        queue(string_format("two %d", i), two.siAddress());
    }
    flushDatagrams();
    EXPECT_THAT(one.received(), ElementsAre("one 0", "one 1", "one 2", "one 3", "one 4"));
    EXPECT_THAT(two.received(), ElementsAre("two 0", "two 1", "two 2", "two 3", "two 4"));
}

TEST_F(SendBatch, SendsAnEmptyDatagram) {
    queue("", one.siAddress());
    flushDatagrams();
    EXPECT_THAT(one.received(), ElementsAre(""));
}

TEST_F(SendBatch, MayHoldMoreThanOneSystemCallTakes) {
    for (int i = 0; i < 2500; ++i) {
        queue(string_format("%d", i), one.siAddress());
    }
    std::vector<std::string> received = one.received();
    EXPECT_EQ(2048U, received.size());
    flushDatagrams();
    for (std::string& sBytes : one.received()) {
        received.push_back(std::move(sBytes));
    }
    ASSERT_EQ(2500U, received.size());
    for (size_t i = 0; i < received.size(); ++i) {
        ASSERT_EQ(std::to_string(i), received[i]);
    }
}

TEST_F(SendBatch, ARefusedReceiverIsSkippedInAnyPosition) {
    for (const sockaddr_in& siRefused : {siBroadcast(), siLoopbackHost(4, 0)}) {
        queue("lost", siRefused);
        queue("a", one.siAddress());
        queue("lost", siRefused);
        queue("lost", siRefused);
        queue("b", one.siAddress());
        queue("c", two.siAddress());
        queue("lost", siRefused);
        flushDatagrams();
        EXPECT_THAT(one.received(), ElementsAre("a", "b"));
        EXPECT_THAT(two.received(), ElementsAre("c"));
    }
}

TEST_F(SendBatch, AnAbsentReceiverDelaysNoOther) {
    const int nClosedPort = Station(4).nPort();
    for (int i = 0; i < 3; ++i) {
        queue("lost", siLoopbackHost(4, nClosedPort));
        queue("a", one.siAddress());
    }
    flushDatagrams();
    EXPECT_EQ(3U, one.received().size());
}

TEST_F(SendBatch, AnotherSocketSendsOffWhatWaits) {
    queue("first", one.siAddress(), udp_listen_sockfd[0]);
    queue("second", one.siAddress(), udp_listen_sockfd[1]);
    EXPECT_THAT(one.received(), ElementsAre("first"));
    queue("third", one.siAddress(), udp_listen_sockfd[1]);
    EXPECT_THAT(one.received(), IsEmpty());
    flushDatagrams();
    EXPECT_THAT(one.received(), ElementsAre("second", "third"));
}

TEST_F(SendBatch, LeavesInOneSystemCallAsFarAsOneTakesIt) {
    const size_t nBefore = nSendCalls();
    for (int i = 0; i < 1024; ++i) {
        queue("a", i % 2 == 0 ? one.siAddress() : two.siAddress());
    }
    EXPECT_EQ(nBefore, nSendCalls());
    flushDatagrams();
    EXPECT_EQ(nBefore + 1, nSendCalls());
    EXPECT_EQ(512U, one.received().size());
    EXPECT_EQ(512U, two.received().size());
}

class FullSendBatch : public SendBatch {
  protected:
    ~FullSendBatch() override { emptySendBuffer(); }

    /// Sends `nDatagrams` datagrams; returns how often that waited.
    size_t nWaitsFor(int nDatagrams) {
        for (int i = 0; i < nDatagrams; ++i) {
            queue("audio", one.siAddress());
        }
        const size_t nBefore = nPolls();
        flushDatagrams();
        return nPolls() - nBefore;
    }
};

TEST_F(FullSendBatch, WaitsOnceInAFlushAndThenLosesWhatHasNoRoom) {
    for (const int nProblem : {EAGAIN, ENOBUFS}) {
        fillSendBuffer(FullBuffer::kStaysFull, nProblem);
        EXPECT_EQ(1U, nWaitsFor(1000));
        EXPECT_EQ(1U, nWaitsFor(2));
        emptySendBuffer();
        EXPECT_EQ(0U, nWaitsFor(1));
        EXPECT_EQ(1U, one.received().size());
    }
}

TEST_F(FullSendBatch, LosesNothingWhenThereIsRoomAfterTheWait) {
    for (const int nProblem : {EAGAIN, ENOBUFS}) {
        fillSendBuffer(FullBuffer::kEmptiesInWait, nProblem);
        EXPECT_EQ(1U, nWaitsFor(3));
        EXPECT_THAT(one.received(), ElementsAre("audio", "audio", "audio"));
    }
}

TEST_F(FullSendBatch, IsNotWhatARefusedReceiverMeans) {
    const size_t nBefore = nPolls();
    queue("lost", siBroadcast());
    flushDatagrams();
    EXPECT_EQ(nBefore, nPolls());
}

}  // namespace
