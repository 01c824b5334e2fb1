/// Datagrams of one length for one receiver: one message to the system stands for as many as it
/// takes, and where it takes none they go one by one.
#include <sys/socket.h>

#include <cerrno>
#include <deque>

#include "base/string_format.h"
#include "relayserver/audio/send_batch.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/send_buffer.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using datagrams_t = std::vector<std::string>;

class SendSegments : public AudioTest {
  protected:
    /// `nCount` numbered datagrams of length `nLength`.
    static datagrams_t numbered(size_t nCount, size_t nLength) {
        datagrams_t made;
        for (size_t i = 0; i < nCount; ++i) {
            made.push_back(string_format("%05zu", i));
            made.back().resize(nLength, static_cast<char>('a' + i % 26));
        }
        return made;
    }

    /// Queues datagrams of one length, and keeps their bytes.
    void queue(const datagrams_t& datagrams, const Station& to) {
        queue(datagrams, to.siAddress());
    }
    void queue(const datagrams_t& datagrams, const sockaddr_in& siTo) {
        kept.push_back(datagrams);
        std::vector<iovec>& rParts = parts.emplace_back();
        for (std::string& rDatagram : kept.back()) {
            rParts.push_back({rDatagram.data(), rDatagram.size()});
        }
        queueDatagrams(udp_listen_sockfd[0], rParts.data(), rParts.size(), siTo);
    }

    /// Sends what is queued in one call; returns the number of messages in it.
    static size_t nMessagesOfFlush() {
        const size_t nCalls = nSendCalls();
        const size_t nBefore = nMessagesSent();
        flushDatagrams();
        EXPECT_EQ(nCalls + 1, nSendCalls());
        return nMessagesSent() - nBefore;
    }

    /// The system refuses to cut messages apart for a socket that sends no check sums, as it does
    /// for interfaces that cannot.
    static void letSegmentsBeRefused() {
        const int nOn = 1;
        ASSERT_EQ(0, setsockopt(udp_listen_sockfd[0], SOL_SOCKET, SO_NO_CHECK, &nOn, sizeof nOn));
    }

    const Station one{2};
    const Station two{3};

  private:
    std::deque<datagrams_t> kept;
    std::deque<std::vector<iovec>> parts;
};

TEST_F(SendSegments, SixtyFourAreOneMessage) {
    const datagrams_t sent = numbered(64, 200);
    queue(sent, one);
    EXPECT_EQ(1U, nMessagesOfFlush());
    EXPECT_EQ(sent, one.received());
}

TEST_F(SendSegments, MoreThanSixtyFourAreSeveral) {
    for (const size_t nCount : {65U, 128U, 129U, 1000U}) {
        const datagrams_t sent = numbered(nCount, 100);
        queue(sent, one);
        EXPECT_EQ((nCount + 63) / 64, nMessagesOfFlush()) << nCount;
        EXPECT_EQ(sent, one.received()) << nCount;
    }
}

TEST_F(SendSegments, AMessageIsNeverTooLongForTheSystem) {
    // It takes 65507 bytes, and refuses a message of more altogether.
    for (const size_t nLength : {1015U, 1016U, 1024U, 1472U, 2047U, 2048U}) {
        const datagrams_t sent = numbered(200, nLength);
        queue(sent, one);
        EXPECT_GT(200U / 25, nMessagesOfFlush()) << nLength;
        EXPECT_EQ(sent, one.received()) << nLength;
    }
}

TEST_F(SendSegments, TheLongestDatagramsGoAlone) {
    for (const size_t nLength : {32768U, 65507U}) {
        queue(datagrams_t(3, std::string(nLength, 'l')), one);
        EXPECT_EQ(3U, nMessagesOfFlush()) << nLength;
        EXPECT_EQ(3U, one.received().size()) << nLength;
    }
}

TEST_F(SendSegments, EmptyOnesAreNotOne) {
    queue({"", "", ""}, one);
    flushDatagrams();
    EXPECT_THAT(one.received(), ElementsAre("", "", ""));
}

TEST_F(SendSegments, EachReceiverHasItsOrder) {
    for (int i = 0; i < 3; ++i) {
        queue(numbered(10, 100), one);
        queue(numbered(10, 200), two);
        queue({string_format("shorter %d", i)}, one);
        queue({std::string(300, 'l')}, two);
    }
    EXPECT_EQ(12U, nMessagesOfFlush());
    const datagrams_t ofOne = one.received();
    const datagrams_t ofTwo = two.received();
    ASSERT_EQ(33U, ofOne.size());
    ASSERT_EQ(33U, ofTwo.size());
    for (size_t i = 0; i < 33; ++i) {
        const size_t nInRound = i % 11;
        EXPECT_EQ(
            nInRound < 10 ? numbered(10, 100)[nInRound] : string_format("shorter %zu", i / 11),
            ofOne[i]);
        EXPECT_EQ(nInRound < 10 ? numbered(10, 200)[nInRound] : std::string(300, 'l'), ofTwo[i]);
    }
}

TEST_F(SendSegments, RefusedOnesGoOneByOneInTheirPlace) {
    letSegmentsBeRefused();
    const datagrams_t first = numbered(100, 200);
    const datagrams_t last = numbered(3, 50);
    queue(first, one);
    queue({"alone"}, one);
    queue(first, two);
    queue(last, one);
    const size_t nBefore = nPolls();
    flushDatagrams();
    EXPECT_EQ(nBefore, nPolls());
    datagrams_t expected = first;
    expected.push_back("alone");
    expected.insert(expected.end(), last.begin(), last.end());
    EXPECT_EQ(expected, one.received());
    EXPECT_EQ(first, two.received());
    flushDatagrams();
    EXPECT_THAT(one.received(), IsEmpty()) << "nothing goes twice";
}

TEST_F(SendSegments, ARefusedReceiverCostsNobodyElseAnything) {
    sockaddr_in siRefused = siLoopbackHost(1, 6900);
    siRefused.sin_addr.s_addr = INADDR_BROADCAST;
    queue(numbered(10, 100), one);
    queue(numbered(10, 100), siRefused);
    queue(numbered(10, 100), two);
    flushDatagrams();
    EXPECT_EQ(numbered(10, 100), one.received());
    EXPECT_EQ(numbered(10, 100), two.received());
}

TEST_F(SendSegments, WhatHasNoRoomIsNotTriedOneByOne) {
    fillSendBuffer(FullBuffer::kStaysFull, EAGAIN);
    queue(numbered(10, 100), one);
    flushDatagrams();
    emptySendBuffer();
    EXPECT_THAT(one.received(), IsEmpty());
}

TEST_F(SendSegments, NothingIsLostWhenThereIsRoomAfterTheWait) {
    fillSendBuffer(FullBuffer::kEmptiesInWait, ENOBUFS);
    queue(numbered(10, 100), one);
    flushDatagrams();
    EXPECT_EQ(numbered(10, 100), one.received());
}

}  // namespace
