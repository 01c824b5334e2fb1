#include "relayserver/audio/packet_counts.h"

#include "relayserver/clients/departures.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// Client 7 sends every program from 127.0.0.2.
class PacketCounts : public AudioTest {
  protected:
    PacketCounts() : source(addAuthClient(7)) {
        for (unsigned i = 0; i < Orvex::RelayClient::kAudioPrograms; ++i) {
            authClient(7).StartSrcAudio(i, mouth.siAddress());
        }
    }

    void sendAudio(int nProgram, int nCount) const {
        for (int i = 0; i < nCount; ++i) {
            exchange(mouth, nProgram, sDatagram(7, "audio"));
        }
    }

    const Station mouth{2};
    Peer source;
};

TEST_F(PacketCounts, ConfirmsThe300thOfAProgramWithItsIndex) {
    sendAudio(2, 299);
    EXPECT_THAT(source.sReceived(), IsEmpty());
    EXPECT_EQ(299U, authClient(7).nPacketsSourced[2]);
    sendAudio(2, 1);
    EXPECT_EQ(sFrame(sImage(97, kRelayID, 0, "2~")), source.sReceived());
    EXPECT_EQ(0U, authClient(7).nPacketsSourced[2]);
    sendAudio(2, 299);
    EXPECT_THAT(source.sReceived(), IsEmpty());
    sendAudio(2, 1);
    EXPECT_EQ(1U, source.images().size());
}

TEST_F(PacketCounts, CountEachProgramForItself) {
    sendAudio(2, 299);
    sendAudio(3, 299);
    EXPECT_THAT(source.sReceived(), IsEmpty());
    EXPECT_EQ(598U, nAudioPacketsRcvd);
}

TEST_F(PacketCounts, LeaveErrorCorrectionOut) {
    sendAudio(2, 299);
    for (const int fd : {udp_fec1_sockfd[2], udp_fec2_sockfd[2]}) {
        mouth.send(fd, sDatagram(7, "correction"));
        receive(fd);
    }
    EXPECT_THAT(source.sReceived(), IsEmpty());
    EXPECT_EQ(299U, authClient(7).nPacketsSourced[2]);
    EXPECT_EQ(299U, nAudioPacketsRcvd);
}

TEST_F(PacketCounts, CountARegistrationOfALocalSource) {
    sendAudio(2, 299);
    exchange(mouth, 2, sRegistration(7, 1));
    EXPECT_EQ(300U, nAudioPacketsRcvd);
    EXPECT_EQ(1U, source.images().size());
}

TEST_F(PacketCounts, LeaveARegistrationOfAnybodyElseOut) {
    exchange(Station(4), 2, sRegistration(7, 1));
    EXPECT_EQ(0U, nAudioPacketsRcvd);
}

TEST_F(PacketCounts, LeaveWhatIsDiscardedOut) {
    exchange(Station(4), 2, sDatagram(7, "audio"));
    exchange(mouth, 2, sDatagram(8, "audio"));
    EXPECT_EQ(0U, nAudioPacketsRcvd);
}

TEST_F(PacketCounts, AClientThatCannotBeToldIsRemoved) {
    const Peer link = openLink();
    sendAudio(2, 299);
    source.close();
    sendAudio(2, 1);
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ(1U, nLogged("removing socket for client 7, and notifying CS\n"));
    EXPECT_EQ(1U, nDepartures(LeaveReason::kSendFailed));
    EXPECT_EQ(1U, link.images().size());
    sendAudio(2, 1);  // from an unknown sender now
    EXPECT_EQ(300U, nAudioPacketsRcvd);
}

TEST_F(PacketCounts, AClientThatIsRemovedByItsRegistrationIsNotRegistered) {
    sendAudio(2, 299);
    source.close();
    exchange(mouth, 2, sRegistration(7, 5));
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ(1U, nLogged("UDP registration marked as from client 7, but that ID not found in TCP "
                          "registration table\n"));
}

TEST_F(PacketCounts, TellEveryHundredThousandth) {
    nAudioPacketsRcvd = 99998;
    sendAudio(1, 1);
    EXPECT_EQ(0U, nLoggedContaining("audio packets received"));
    sendAudio(1, 2);
    EXPECT_EQ(1U, nLogged("100000 audio packets received from local senders, this packet from "
                          "client 7\n"));
    EXPECT_EQ(1U, nLoggedContaining("audio packets received"));
}

TEST_F(PacketCounts, TellTheHundredThousandthOfAClientThatWentWithIt) {
    nAudioPacketsRcvd = 199999;
    authClient(7).nPacketsSourced[2] = 299;
    source.close();
    sendAudio(2, 1);
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_EQ(1U, nLogged("200000 audio packets received from local senders, this packet from "
                          "client 7\n"));
}

}  // namespace
