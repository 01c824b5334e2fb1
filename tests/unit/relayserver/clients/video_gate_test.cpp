#include "relayserver/clients/video_gate.h"

#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include "genner/output/VideoFeedbackNetMessage.h"
#include "relayserver/sockets/socket_options.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class VideoGate : public EngineTest {
  protected:
    VideoGate() : peer(addTcpAuthClient(8)) {
        bIncreaseSockTxBuf(fdOf(8), 4 * kMaxVideoFullness);
        loggedLines().clear();
    }

    static int nBacklog() {
        int nUnsent = 0;
        EXPECT_EQ(0, ioctl(fdOf(8), SIOCOUTQ, &nUnsent));
        return nUnsent;
    }

    /// Leaves exactly `nBytes` unsent: what the peer's small window took does not count.
    static void fillBacklogTo(int nBytes) {
        for (int nTry = 0; nTry < 1000 && nBacklog() < nBytes; ++nTry) {
            const std::string sFill(static_cast<size_t>(nBytes - nBacklog()), 'x');
            ASSERT_LT(0, send(fdOf(8), sFill.data(), sFill.size(), 0));
        }
        ASSERT_EQ(nBytes, nBacklog());
    }

    void emptyBacklog() const {
        for (int nTry = 0; nTry < 100000 && nBacklog() > 0; ++nTry) {
            (void)peer.sReceived();
        }
        ASSERT_EQ(0, nBacklog());
    }

    static bool bPageFits(int nPage) { return bVideoPageFits(nPage, authClient(8)); }

    const Peer peer;
    const std::string sThrottled =
        "INFO: throttling video frames to client 8 due to its outstanding TCP buffer size\n";
};

TEST_F(VideoGate, AFrameMayStartAtTheLimit) {
    fillBacklogTo(200000);
    EXPECT_TRUE(bPageFits(1));
    EXPECT_TRUE(bPageFits(2));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(VideoGate, AFrameAboveTheLimitIsDroppedWithAllItsPages) {
    fillBacklogTo(200001);
    EXPECT_FALSE(bPageFits(1));
    EXPECT_TRUE(authClient(8).IsVideoThrottled());
    emptyBacklog();
    EXPECT_FALSE(bPageFits(2)) << "the rest of a frame without a beginning is of no use";
    EXPECT_FALSE(bPageFits(3));
    EXPECT_THAT(loggedLines(), ElementsAre(sThrottled));
}

TEST_F(VideoGate, TheNextFramePassesOnceTheBacklogHasFallen) {
    fillBacklogTo(200001);
    EXPECT_FALSE(bPageFits(1));
    emptyBacklog();
    fillBacklogTo(200000);
    EXPECT_TRUE(bPageFits(1));
    EXPECT_FALSE(authClient(8).IsVideoThrottled());
    EXPECT_TRUE(bPageFits(2));
}

TEST_F(VideoGate, FurtherDroppedFramesAreSilentUntilOneHasPassed) {
    fillBacklogTo(200001);
    EXPECT_FALSE(bPageFits(1));
    EXPECT_FALSE(bPageFits(1));
    EXPECT_EQ(1U, nLogged(sThrottled));
    emptyBacklog();
    EXPECT_TRUE(bPageFits(1));
    fillBacklogTo(200001);
    EXPECT_FALSE(bPageFits(1));
    EXPECT_EQ(2U, nLogged(sThrottled));
}

TEST_F(VideoGate, AFrameThatHasStartedIsSentWhole) {
    EXPECT_TRUE(bPageFits(1));
    fillBacklogTo(300000);
    EXPECT_TRUE(bPageFits(2));
    EXPECT_TRUE(bPageFits(0));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(VideoGate, ReadsThePageOutOfAMessage) {
    Orvex::VideoFeedbackNetMessage vfnm;
    vfnm.SetPageMarker(255, 3);
    vfnm.Pack(nullptr);
    EXPECT_EQ(255, nVideoPage(vfnm));
    const std::string sEmpty = sImage(0x41, 7, 0, "");
    EXPECT_EQ(0, nVideoPage(Orvex::NetMessage(sEmpty.data(), static_cast<int>(sEmpty.size()))));
}

TEST_F(VideoGate, AFreshGrantPassesWithoutTouchingTheSocket) {
    videoPermissions.Grant(7, 8);
    EXPECT_TRUE(bVideoPermitted(7, authClient(8)));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(VideoGate, AnUnknownPairIsGrantedForLater) {
    EXPECT_FALSE(bVideoPermitted(4294967295U, authClient(8)));
    EXPECT_EQ(2, videoPermissions.getCode(-1, 8));
    EXPECT_TRUE(bVideoPermitted(4294967295U, authClient(8)));
}

}  // namespace
