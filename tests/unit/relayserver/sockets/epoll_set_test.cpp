#include "relayserver/sockets/epoll_set.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <functional>

#include "tests/unit/relayserver/engine_fixture.h"

namespace {

class EpollSet : public EngineTest {
  protected:
    EpollSet() { EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, _fds)); }
    ~EpollSet() override {
        closeDescriptor(_fds[0]);
        closeDescriptor(_fds[1]);
    }

    /// What is ready now, into `ep_events`.
    static int nReady() { return epoll_wait(ep_fd, ep_events, kMaxEpollEvents, 0); }

    static std::string sPerror(const std::function<void()>& doIt) {
        testing::internal::CaptureStderr();
        doIt();
        return testing::internal::GetCapturedStderr();
    }

    [[nodiscard]] int fd() const { return _fds[0]; }
    [[nodiscard]] int fdPeer() const { return _fds[1]; }
    void makeReadable() const { EXPECT_EQ(1, write(fdPeer(), "x", 1)); }

    int _fds[2] = {-1, -1};
};

TEST_F(EpollSet, TheBufferHolds9999Events) {
    EXPECT_EQ(9999, kMaxEpollEvents);
    EXPECT_EQ(0U, ep_events[9998].events);
}

TEST_F(EpollSet, WatchesForInput) {
    EXPECT_TRUE(addToEpollForRead(fd()));
    EXPECT_EQ(0, nReady());
    makeReadable();
    ASSERT_EQ(1, nReady());
    EXPECT_EQ(fd(), nDescriptorOf(ep_events[0]));
    EXPECT_EQ(static_cast<unsigned>(EPOLLIN), ep_events[0].events);
    EXPECT_TRUE(bIsCurrent(ep_events[0]));
}

TEST_F(EpollSet, WatchesForRoom) {
    EXPECT_TRUE(addToEpollForWrite(fd()));
    ASSERT_EQ(1, nReady());
    EXPECT_EQ(static_cast<unsigned>(EPOLLOUT), ep_events[0].events);
}

TEST_F(EpollSet, RefusesWhatIsWatchedAlreadyAndKeepsTheFirstInterest) {
    EXPECT_TRUE(addToEpollForWrite(fd()));
    EXPECT_EQ("epoll_ctl: File exists\n",
              sPerror([this] { EXPECT_FALSE(addToEpollForRead(fd())); }));
    ASSERT_EQ(1, nReady());
    EXPECT_EQ(static_cast<unsigned>(EPOLLOUT), ep_events[0].events);
    EXPECT_TRUE(bIsCurrent(ep_events[0]));
}

TEST_F(EpollSet, RefusesWhatIsNoDescriptor) {
    EXPECT_EQ("epoll_ctl: Bad file descriptor\n",
              sPerror([] { EXPECT_FALSE(addToEpollForRead(-1)); }));
    EXPECT_EQ("epoll_ctl: Bad file descriptor\n",
              sPerror([] { EXPECT_FALSE(removeFromEpoll(-1)); }));
    EXPECT_EQ("epoll_ctl: No such file or directory\n",
              sPerror([this] { EXPECT_FALSE(removeFromEpoll(fd())); }));
}

TEST_F(EpollSet, StopsWatching) {
    EXPECT_TRUE(addToEpollForRead(fd()));
    makeReadable();
    EXPECT_TRUE(removeFromEpoll(fd()));
    EXPECT_EQ(0, nReady());
}

TEST_F(EpollSet, AnEventIsStaleOnceItsDescriptorIsNotWatched) {
    addToEpollForRead(fd());
    makeReadable();
    ASSERT_EQ(1, nReady());
    removeFromEpoll(fd());
    EXPECT_FALSE(bIsCurrent(ep_events[0]));
}

TEST_F(EpollSet, AnEventIsStaleOnceItsDescriptorIsClosed) {
    addToEpollForRead(fd());
    makeReadable();
    ASSERT_EQ(1, nReady());
    closeDescriptor(fd());
    EXPECT_FALSE(bIsCurrent(ep_events[0]));
    _fds[0] = -1;
}

TEST_F(EpollSet, AnEventIsNotOfTheNewcomerWithItsNumber) {
    addToEpollForRead(fd());
    makeReadable();
    ASSERT_EQ(1, nReady());
    const int fdOld = fd();
    closeDescriptor(fdOld);
    _fds[0] = dup(fdPeer());
    ASSERT_EQ(fdOld, fd()) << "the lowest free number is the one just closed";
    addToEpollForRead(fd());
    EXPECT_FALSE(bIsCurrent(ep_events[0]));
}

TEST_F(EpollSet, AnEventIsStaleAfterAChangeOfInterest) {
    addToEpollForWrite(fd());
    ASSERT_EQ(1, nReady());
    removeFromEpoll(fd());
    addToEpollForRead(fd());
    EXPECT_FALSE(bIsCurrent(ep_events[0]));
}

TEST_F(EpollSet, ClosingNothingDoesNothing) {
    closeDescriptor(-1);
    EXPECT_NE(-1, fcntl(fd(), F_GETFD));
}

TEST_F(EpollSet, AWatchedDescriptorGetsAnotherTurnAsAnInputEvent) {
    addToEpollForRead(fd());
    EXPECT_FALSE(bTurnsWaiting());
    offerAgain(fd());
    EXPECT_TRUE(bTurnsWaiting());
    beginTurns();
    EXPECT_FALSE(bTurnsWaiting());
    epoll_event epe{};
    ASSERT_TRUE(bNextTurn(epe));
    EXPECT_EQ(fd(), nDescriptorOf(epe));
    EXPECT_EQ(static_cast<unsigned>(EPOLLIN), epe.events);
    EXPECT_TRUE(bIsCurrent(epe));
    EXPECT_FALSE(bNextTurn(epe));
}

TEST_F(EpollSet, AskingTwiceGivesOneTurn) {
    addToEpollForRead(fd());
    offerAgain(fd());
    offerAgain(fd());
    beginTurns();
    epoll_event epe{};
    EXPECT_TRUE(bNextTurn(epe));
    EXPECT_FALSE(bNextTurn(epe));
}

TEST_F(EpollSet, ATurnAskedForDuringARoundBelongsToTheNext) {
    addToEpollForRead(fd());
    offerAgain(fd());
    beginTurns();
    epoll_event epe{};
    ASSERT_TRUE(bNextTurn(epe));
    offerAgain(fd());
    EXPECT_FALSE(bNextTurn(epe));
    EXPECT_TRUE(bTurnsWaiting());
    beginTurns();
    EXPECT_TRUE(bNextTurn(epe));
}

TEST_F(EpollSet, ATurnEndsWithItsRegistration) {
    addToEpollForRead(fd());
    offerAgain(fd());
    removeFromEpoll(fd());
    addToEpollForRead(fd());
    beginTurns();
    epoll_event epe{};
    EXPECT_FALSE(bNextTurn(epe));
    offerAgain(fd());
    beginTurns();
    EXPECT_TRUE(bNextTurn(epe)) << "the new registration has turns of its own";
}

TEST_F(EpollSet, AnUnwatchedDescriptorGetsNoTurn) {
    offerAgain(fd());
    offerAgain(-1);
    offerAgain(1000);
    EXPECT_FALSE(bTurnsWaiting());
}

}  // namespace
