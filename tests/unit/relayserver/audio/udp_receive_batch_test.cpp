#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/string_format.h"
#include "relayserver/audio/packet_counts.h"
#include "relayserver/audio/udp_receive.h"
#include "relayserver/loop/event_loop.h"
#include "relayserver/sockets/epoll_set.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/send_buffer.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Client 7 sends program 0 from 127.0.0.2 to client 9.
class UdpReceiveBatch : public AudioTest {
  protected:
    UdpReceiveBatch() : source(addAuthClient(7)), receiver(addAuthClient(9)) {
        authClient(7).StartSrcAudio(0, mouth.siAddress());
        authClient(9).StartRcvAudio(0, ear.siAddress());
        giveAudioRoute(7, {"9"});
        const int nBytes = 8388608;
        setsockopt(udp_listen_sockfd[0], SOL_SOCKET, SO_RCVBUFFORCE, &nBytes, sizeof nBytes);
    }

    void sendNumbered(int nFrom, int nTo) const {
        for (int i = nFrom; i < nTo; ++i) {
            mouth.send(udp_listen_sockfd[0], sNumbered(i));
        }
    }

    static std::string sNumbered(int i) { return sDatagram(7, string_format("%05d", i)); }

    static bool bWaits(int fd) {
        char chByte = 0;
        return recv(fd, &chByte, 1, MSG_DONTWAIT | MSG_PEEK) >= 0;
    }

    /// What a receive event of a descriptor that is no socket prints.
    static std::string sPrintedWithoutSocket() {
        const int fdKept = dup(udp_listen_sockfd[0]);
        const int fdNull = open("/dev/null", O_RDWR | O_CLOEXEC);
        dup2(fdNull, udp_listen_sockfd[0]);
        testing::internal::CaptureStderr();
        receive(udp_listen_sockfd[0]);
        dup2(fdKept, udp_listen_sockfd[0]);
        close(fdNull);
        close(fdKept);
        return testing::internal::GetCapturedStderr();
    }

    const Peer source;
    const Peer receiver;
    const Station mouth{2};
    const Station ear{3};
};

TEST_F(UdpReceiveBatch, TakesAThousandAtOnceAndTheRestWithTheNextEventInOrder) {
    sendNumbered(0, 1203);
    const size_t nBefore = nSendCalls();
    receive(udp_listen_sockfd[0]);
    EXPECT_EQ(nBefore + 1, nSendCalls());  // they leave together, too
    const std::vector<std::string> first = ear.received();
    ASSERT_EQ(1000U, first.size());
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(sNumbered(i), first[static_cast<size_t>(i)]);
    }
    receive(udp_listen_sockfd[0]);
    const std::vector<std::string> rest = ear.received();
    ASSERT_EQ(203U, rest.size());
    for (int i = 0; i < 203; ++i) {
        ASSERT_EQ(sNumbered(1000 + i), rest[static_cast<size_t>(i)]);
    }
    EXPECT_EQ(1203U, nAudioPacketsRcvd);
}

TEST_F(UdpReceiveBatch, ForwardsADatagramOf2048Bytes) {
    const std::string sLongest = sDatagram(7, std::string(2032, 'l'));
    exchange(mouth, 0, sLongest);
    EXPECT_THAT(ear.received(), ElementsAre(sLongest));
}

TEST_F(UdpReceiveBatch, ForwardsNoneThatItCouldNotTakeWhole) {
    mouth.send(udp_listen_sockfd[0], sDatagram(7, std::string(2033, 'l')));
    exchange(mouth, 0, sDatagram(7, "next"));
    EXPECT_THAT(ear.received(), ElementsAre(sDatagram(7, "next")));
    EXPECT_EQ(1U, nAudioPacketsRcvd);
}

TEST_F(UdpReceiveBatch, ReadsOnlyWhenThereIsInput) {
    mouth.send(udp_listen_sockfd[0], sDatagram(7, "audio"));
    epoll_event epe{};
    epe.events = EPOLLOUT;
    epe.data.fd = udp_listen_sockfd[0];
    EXPECT_TRUE(bHandleUdpAudio(epe, 0));
    EXPECT_TRUE(bWaits(udp_listen_sockfd[0]));
    EXPECT_THAT(ear.received(), IsEmpty());
}

TEST_F(UdpReceiveBatch, LeavesOtherDescriptorsAlone) {
    epoll_event epe{};
    epe.events = EPOLLIN;
    for (const int fd : {fdOf(7), -1, 100000}) {
        epe.data.fd = fd;
        EXPECT_FALSE(bHandleUdpAudio(epe, 0)) << fd;
        EXPECT_FALSE(bClearAudioSocketError(fd)) << fd;
    }
}

TEST_F(UdpReceiveBatch, PrintsWhyNothingCouldBeReceivedAndGoesOn) {
    EXPECT_EQ("relayserver UDP socket recvmmsg(): Socket operation on non-socket\n",
              sPrintedWithoutSocket());
    exchange(mouth, 0, sDatagram(7, "audio"));
    EXPECT_EQ(1U, ear.received().size());
}

TEST_F(UdpReceiveBatch, SaysNothingWhenNothingWaits) {
    testing::internal::CaptureStderr();
    receive(udp_listen_sockfd[0]);
    EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST_F(UdpReceiveBatch, AnErrorEventClosesNoAudioSocket) {
    const int fd = udp_listen_sockfd[0];
    mouth.send(fd, sDatagram(7, "audio"));
    ASSERT_EQ(1, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0));
    epoll_event epe = ep_events[0];
    epe.events = EPOLLIN | EPOLLERR;
    offerToHandlers(epe, 0);
    EXPECT_EQ(1U, ear.received().size());  // and what waited has been taken
    EXPECT_EQ(0U, nLoggedContaining("will be closed"));
    EXPECT_EQ(
        1U, nLogged(string_format("WARNING: error 0 on audio socket %d, which stays open\n", fd)));
    exchange(mouth, 0, sDatagram(7, "more"));
    EXPECT_EQ(1U, ear.received().size());
}

TEST_F(UdpReceiveBatch, TheLoopHearsEverySocket) {
    for (int i = 0; i < kAudioPrograms; ++i) {
        for (const int fd : {udp_listen_sockfd[i], udp_fec1_sockfd[i], udp_fec2_sockfd[i]}) {
            mouth.send(fd, sDatagram(7, ""));
        }
    }
    EXPECT_EQ(18, epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0));
}

}  // namespace
