/// Datagrams that were received together: each is forwarded as if it had come alone.
#include "base/clock.h"
#include "base/string_format.h"
#include "relayserver/audio/packet_counts.h"
#include "relayserver/audio/switch_audio.h"
#include "relayserver/sockets/listeners.h"
#include "tests/stubs/logging_stub.h"
#include "tests/stubs/send_buffer.h"
#include "tests/stubs/tesselsql_stub.h"
#include "tests/unit/relayserver/audio/audio_fixture.h"

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

/// Client 7 sends program 0 from 127.0.0.2 to the clients 9 and 10.
class AudioBursts : public AudioTest {
  protected:
    AudioBursts()
        : source(addAuthClient(7)), receiver9(addAuthClient(9)), receiver10(addAuthClient(10)) {
        authClient(7).StartSrcAudio(0, mouth.siAddress());
        authClient(9).StartRcvAudio(0, ear9.siAddress());
        authClient(10).StartRcvAudio(0, ear10.siAddress());
        giveAudioRoute(7, {"9", "10"});
    }

    static std::string sSound(int i, size_t nLength) {
        std::string sRest = string_format("%05d", i);
        sRest.resize(nLength - 16, static_cast<char>('a' + i % 26));
        return sDatagram(7, sRest);
    }

    /// They have arrived from `from`; the relay takes them together.
    static void receiveAll(const Station& from, const std::vector<std::string>& datagrams) {
        for (const std::string& sBytes : datagrams) {
            from.send(udp_listen_sockfd[0], sBytes);
        }
        receive(udp_listen_sockfd[0]);
    }

    /// Lengths as they come with speech: mostly one, now and then a shorter or a longer one.
    static std::vector<std::string> speech(int nCount) {
        std::vector<std::string> made;
        for (int i = 0; i < nCount; ++i) {
            const size_t nLength = i % 7 == 3 ? 60 : i % 11 == 5 ? 900 : 200;
            made.push_back(sSound(i, nLength));
        }
        return made;
    }

    const Station mouth{2};
    const Station ear9{3};
    const Station ear10{4};
    Peer source;
    const Peer receiver9;
    const Peer receiver10;
};

TEST_F(AudioBursts, OfOneLengthAreOneMessageForEachReceiver) {
    std::vector<std::string> sent;
    for (int i = 0; i < 60; ++i) {
        sent.push_back(sSound(i, 200));
    }
    const size_t nBefore = nMessagesSent();
    receiveAll(mouth, sent);
    EXPECT_EQ(nBefore + 2, nMessagesSent());
    EXPECT_EQ(sent, ear9.received());
    EXPECT_EQ(sent, ear10.received());
}

TEST_F(AudioBursts, AnotherLengthBeginsANewRun) {
    const std::vector<std::string> sent = {sSound(0, 200), sSound(1, 200), sSound(2, 100),
                                           sSound(3, 200), sSound(4, 300), sSound(5, 300)};
    const size_t nBefore = nMessagesSent();
    receiveAll(mouth, sent);
    EXPECT_EQ(nBefore + 4 * 2, nMessagesSent());
    EXPECT_EQ(sent, ear9.received());
    EXPECT_EQ(sent, ear10.received());
}

TEST_F(AudioBursts, OfAnyLengthsKeepTheirOrderAndTheirBytes) {
    const std::vector<std::string> sent = speech(900);
    receiveAll(mouth, sent);
    EXPECT_EQ(sent, ear9.received());
    EXPECT_EQ(sent, ear10.received());
    EXPECT_EQ(1800U, audio_packets_sent);
    EXPECT_EQ(900U, nAudioPacketsRcvd);
    EXPECT_THAT(executedStatements(), SizeIs(1));
}

TEST_F(AudioBursts, MayBeLongerThanWhatIsKeptAtOnce) {
    std::vector<std::string> sent;
    for (int i = 0; i < 3000; ++i) {
        sent.push_back(sSound(i, i < 1500 ? 100 : 60));
    }
    for (const std::string& sBytes : sent) {
        SwitchAudioPacket(7, udp_listen_sockfd[0], sBytes.data(), static_cast<int>(sBytes.size()),
                          false, 0, 0);
    }
    flushAudio();
    EXPECT_EQ(sent, ear9.received());
    EXPECT_EQ(6000U, audio_packets_sent);
}

TEST_F(AudioBursts, OfSeveralSourcesGoEachItsOwnWay) {
    const Peer other = addAuthClient(8);
    authClient(8).StartSrcAudio(0, mouth.siAddress());
    giveAudioRoute(8, {"10"});
    const std::string sOfEight = sDatagram(8, "of eight");
    const std::string sOfSeven = sDatagram(7, "of seven");
    ASSERT_EQ(sOfSeven.size(), sOfEight.size());
    receiveAll(mouth, {sOfSeven, sOfEight, sOfEight, sOfSeven});
    EXPECT_THAT(ear9.received(), ElementsAre(sOfSeven, sOfSeven));
    EXPECT_THAT(ear10.received(), ElementsAre(sOfSeven, sOfEight, sOfEight, sOfSeven));
}

TEST_F(AudioBursts, OfARelayPeerAndAStationAreToldApart) {
    const PeerAudio audio(8);
    const Peer relay = addRelayPeer(20, 8, audio);
    giveAudioRoute(7, {"20", "9"});
    authClient(20).StartRcvAudio(0, ear10.siAddress());
    const int fd = udp_listen_sockfd[0];
    const std::string sBytes = sDatagram(7, "audio");
    for (const bool bFromRelayPeer : {false, true, false}) {
        SwitchAudioPacket(7, fd, sBytes.data(), static_cast<int>(sBytes.size()), bFromRelayPeer, 0,
                          0);
    }
    giveAudioRoute(7, {"9"});  // what the dissolving leaves
    flushAudio();
    EXPECT_THAT(ear9.received(), SizeIs(3));
    EXPECT_THAT(ear10.received(), SizeIs(1));
    EXPECT_EQ(1U, nLoggedContaining("possible relay loop"));
}

TEST_F(AudioBursts, WhatCameBeforeARegistrationGoesWhereItWentBefore) {
    const Station moved{5};
    const std::string sBefore = sSound(1, 100);
    const std::string sBehind = sSound(2, 100);
    mouth.send(udp_listen_sockfd[0], sBefore);
    moved.send(udp_listen_sockfd[0], sRegistration(9, 1));
    receiveAll(mouth, {sBehind});
    EXPECT_THAT(ear9.received(), ElementsAre(sBefore));
    EXPECT_THAT(moved.received(), ElementsAre(sBehind));
    EXPECT_THAT(ear10.received(), ElementsAre(sBefore, sBehind));
}

TEST_F(AudioBursts, AreConfirmedForEveryThreeHundred) {
    receiveAll(mouth, speech(650));
    const std::string sConfirm = sFrame(sImage(97, kRelayID, 0, "0~"));
    EXPECT_EQ(sConfirm + sConfirm, source.sReceived());
    EXPECT_EQ(50U, authClient(7).nPacketsSourced[0]);
    EXPECT_THAT(ear9.received(), SizeIs(650));
}

TEST_F(AudioBursts, EndWithTheSourceThatCannotBeTold) {
    source.close();
    receiveAll(mouth, speech(400));
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_THAT(ear9.received(), SizeIs(300));
    EXPECT_THAT(ear10.received(), SizeIs(300));
    EXPECT_EQ(300U, nAudioPacketsRcvd);
}

TEST_F(AudioBursts, TheTwoHundredThousandthIsToldInTheMiddle) {
    resetSwitchAudioForTest(200000 - 15);
    std::vector<std::string> sent;
    for (int i = 0; i < 10; ++i) {
        sent.push_back(sSound(i, 100));
    }
    receiveAll(mouth, sent);
    EXPECT_EQ(1U, nLogged("Sent 200000 audio packets, this packet switched from 7 to 10\n"));
    EXPECT_EQ(200005U, audio_packets_sent);
}

TEST_F(AudioBursts, WithoutReceiversLeaveNothing) {
    authClient(9).StopRcvAudio(0);
    authClient(10).StopRcvAudio(0);
    const size_t nBefore = nSendCalls();
    receiveAll(mouth, speech(100));
    EXPECT_EQ(nBefore, nSendCalls());
    EXPECT_EQ(0U, audio_packets_sent);
    EXPECT_THAT(ear9.received(), IsEmpty());
}

}  // namespace
