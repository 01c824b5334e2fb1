/// Which messages leave a copy for the archive.
#include "base/clock.h"
#include "base/string_format.h"
#include "genner/output/CaptionNetMessage.h"
#include "relayserver/archive/archive_pass.h"
#include "relayserver/clients/client_tables.h"
#include "relayserver/peers/relay_peer.h"
#include "relayserver/routes/RoutingCache.h"
#include "relayserver/settings/settings.h"
#include "relayserver/switching/client_messages.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"

using Tessel_Routing::RouteEntry;
using Tessel_Routing::RoutingCache;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

constexpr const char* kNewSource7 = "Newly collecting caption feedback from source 7 for archive\n";

class ArchivedCaptions : public EngineTest {
  protected:
    ArchivedCaptions() : peer7(addAuthClient(7)), peer8(addAuthClient(8)) {
        bArchiveEnable = true;
        route(7, kCaptionPipe, {8});
    }

    /// Client 7 has sent these messages; the relay notices.
    void receive(const std::vector<std::string>& images) const {
        for (const std::string& sMessage : images) {
            peer7.sendBytes(sFrame(sMessage));
        }
        readAndSwitch(authClient(7));
    }
    static std::string sCaption(unsigned nSender, const std::string& sBytes) {
        Orvex::CaptionNetMessage cnm(true, sBytes.data(), static_cast<int>(sBytes.size()));
        cnm.ChangeSenderID(nSender);
        return std::string(cnm.frame().substr(1));
    }
    /// The rendered captions of a source, "none" when it is not collected.
    static std::string sArchived(unsigned nID) {
        SccPChunker* const pChunker = ChunkCollector.getSourceBuffer(nID);
        return pChunker == nullptr ? "none" : pChunker->getChunkPayloadJson();
    }

    const Peer peer7;
    const Peer peer8;
};

TEST_F(ArchivedCaptions, AStationsCaptionIsArchivedAndSwitchedUnchanged) {
    const std::string sImage7 = sCaption(7, "ab");
    receive({sImage7});
    EXPECT_THAT(peer8.images(), ElementsAre(sImage7));
    EXPECT_THAT(sArchived(7),
                HasSubstr("\"S1data\" : \"1700000001.000\t6162\r\n\r\n\",\"S2data\""));
    EXPECT_THAT(loggedLines(), ElementsAre(kNewSource7));
}

TEST_F(ArchivedCaptions, EveryByteOfACaptionIsArchived) {
    const std::string sOdd("~~\\\\\0\0\r\n\x94\xAC\x80\xFF\xDC\xFE", 14);
    receive({sCaption(7, sOdd)});
    const std::string sJson = sArchived(7);
    EXPECT_THAT(sJson, HasSubstr("\tfefe dcdc 8080 0d8a\r\n\r\n\",\"S2data\""));
    EXPECT_THAT(sJson, HasSubstr("\t94ac 80ff dcfe\r\n\r\n\"}}"));
}

TEST_F(ArchivedCaptions, TheLongestCaptionIsArchived) {
    receive({sCaption(7, std::string(498, 'a'))});
    const std::string sJson = sArchived(7);
    EXPECT_EQ(249U * 4 + 248, sJson.find("\r\n") - sJson.find('\t') - 1);
}

TEST_F(ArchivedCaptions, EachCaptionOfABurstHasATimeOfItsOwn) {
    resetClockForTest();  // the archive keeps one caption of a microsecond
    std::vector<Peer> others;
    std::vector<unsigned> destinations = {8};
    for (int nID = 100; nID < 105; ++nID) {
        others.push_back(addAuthClient(nID));
        destinations.push_back(static_cast<unsigned>(nID));
    }
    route(7, kCaptionPipe, destinations);
    std::vector<std::string> burst;
    std::string sAll;
    for (int i = 0; i < 200; ++i) {
        burst.push_back(sCaption(7, string_format("%04d", i)));
        sAll += sFrame(burst.back());
    }
    peer7.sendBytes(sAll);
    readAndSwitch(authClient(7));
    EXPECT_EQ(burst, peer8.images());
    EXPECT_EQ(burst, others.back().images());
    EXPECT_EQ(200U, ChunkCollector.getSourceBuffer(7)->getBufferedSize());
    EXPECT_THAT(loggedLines(), ElementsAre(kNewSource7));
}

TEST_F(ArchivedCaptions, AClockThatStandsStillIsNotWaitedFor) {
    receive({sCaption(7, "ab"), sCaption(7, "cd")});
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(7, "ab"), sCaption(7, "cd")));
    EXPECT_THAT(sArchived(7),
                HasSubstr("\"S1data\" : \"1700000001.000\t6162\r\n\r\n\",\"S2data\""));
}

TEST_F(ArchivedCaptions, ASourceIsLoggedOnce) {
    receive({sCaption(7, "ab")});
    advanceClockForTest(1);
    receive({sCaption(7, "cd")});
    EXPECT_EQ(1U, nLogged(kNewSource7));
    EXPECT_EQ(2U, ChunkCollector.getSourceBuffer(7)->getBufferedSize());
}

TEST_F(ArchivedCaptions, AnEmptyCaptionMakesTheSourceKnownButAddsNothing) {
    const std::string sEmpty = sCaption(7, "");
    receive({sEmpty});
    EXPECT_THAT(peer8.images(), ElementsAre(sEmpty));
    ASSERT_NE(nullptr, ChunkCollector.getSourceBuffer(7));
    EXPECT_EQ(0U, ChunkCollector.getSourceBuffer(7)->getBufferedSize());
    EXPECT_THAT(loggedLines(), ElementsAre(kNewSource7));
}

TEST_F(ArchivedCaptions, ACaptionWithoutItsFieldCountsAsEmpty) {
    const std::string sMalformed = sImage(kCaption, 7, 0, "");
    receive({sMalformed});
    EXPECT_THAT(peer8.images(), ElementsAre(sMalformed));
    ASSERT_NE(nullptr, ChunkCollector.getSourceBuffer(7));
    EXPECT_EQ(0U, ChunkCollector.getSourceBuffer(7)->getBufferedSize());
}

TEST_F(ArchivedCaptions, WhatARelayPeerCarriesIsSwitchedButNotArchived) {
    MarkAsRelay(authClient(7));
    loggedLines().clear();
    route(4711, kCaptionPipe, {8});
    receive({sCaption(7, "ab"), sCaption(4711, "cd")});
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(7, "ab"), sCaption(4711, "cd")));
    EXPECT_EQ("none", sArchived(7));
    EXPECT_EQ("none", sArchived(4711));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ArchivedCaptions, WithoutAnArchiveCaptionsAreOnlySwitched) {
    bArchiveEnable = false;
    receive({sCaption(7, "ab")});
    EXPECT_THAT(peer8.images(), ElementsAre(sCaption(7, "ab")));
    EXPECT_EQ("none", sArchived(7));
    EXPECT_THAT(loggedLines(), IsEmpty());
}

TEST_F(ArchivedCaptions, ACaptionInAnothersNameIsNotArchived) {
    receive({sCaption(9, "ab")});
    EXPECT_EQ("none", sArchived(7));
    EXPECT_EQ("none", sArchived(9));
}

TEST_F(ArchivedCaptions, OnlyCaptionsAreArchived) {
    for (int nType = 0; nType < 256; ++nType) {
        if (nType != kCaption && nType != 2) {  // a log-out ends the client
            receive({sImage(nType, 7, 0, "ab~")});
        }
    }
    EXPECT_EQ("none", sArchived(7));
    EXPECT_EQ(0U, nLoggedContaining("archive"));
    EXPECT_TRUE(bIsAdmitted(7));
}

TEST_F(ArchivedCaptions, ACaptionThatReachesNobodyIsArchived) {
    peer8.stopReading();
    receive({sCaption(7, "ab")});
    EXPECT_FALSE(bIsAdmitted(8));
    EXPECT_THAT(sArchived(7), HasSubstr("\t6162\r\n"));
}

TEST_F(ArchivedCaptions, CaptionsOfSeveralStationsStayApart) {
    const Peer peer9 = addAuthClient(9);
    receive({sCaption(7, "ab")});
    peer9.sendBytes(sFrame(sCaption(9, "cd")));
    readAndSwitch(authClient(9));
    EXPECT_THAT(sArchived(7), HasSubstr("\"S1data\" : \"1700000001.000\t6162\r\n\r\n\""));
    EXPECT_THAT(sArchived(9), HasSubstr("\"S1data\" : \"1700000001.000\te364\r\n\r\n\""));
}

TEST_F(ArchivedCaptions, AStationsCaptionsOutliveIt) {
    receive({sCaption(7, "ab"), sImage(2, 7, 0, "")});
    EXPECT_FALSE(bIsAdmitted(7));
    EXPECT_THAT(sArchived(7), HasSubstr("\t6162\r\n"));
}

}  // namespace
