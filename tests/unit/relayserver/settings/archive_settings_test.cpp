/// What the settings make of the section that configures the archive.
#include "relayserver/settings/settings.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/temp_folder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kNothingCanBePosted =
    "WARNING: archive without endpoint and interval, nothing can be posted\n";

class ArchiveSettings : public EngineTest {
  protected:
    /// Reads a configuration with these lines in the archive's section; keeps what is logged since.
    void read(const std::string& sArchive) {
        resetSettingsForTest();
        loggedLines().clear();
        const std::string sText =
            "[Login]\ncompany=a\nusername=b\npassword=c\n[Servers]\nprimary=x\n[Archive]\n";
        EXPECT_TRUE(
            readSettings(ConfigFile(_folder.sWrite("relay.conf", sText + sArchive)), {}).bGoOn);
        archiveLines.clear();
        bool bBehindOthers = false;
        for (const std::string& sLine : loggedLines()) {
            if (bBehindOthers) {
                archiveLines.push_back(sLine);
            }
            bBehindOthers = bBehindOthers || sLine.starts_with("Using password: ");
        }
    }
    static constexpr const char* kBoth = "enable=yes\nendpoint=http://e.example/a\ninterval=30\n";

    /// What was logged after the lines of the other sections.
    std::vector<std::string> archiveLines;

  private:
    TempFolder _folder;
};

TEST_F(ArchiveSettings, TheArchiveIsOffByDefault) {
    read("");
    EXPECT_FALSE(bArchiveEnable);
    EXPECT_EQ("", sArchiveEndpoint);
    EXPECT_EQ(60U, nArchiveInterval);
    EXPECT_EQ("", sArchiveUsername);
    EXPECT_EQ("", sArchivePassword);
    EXPECT_EQ("", sArchiveContentType);
    EXPECT_FALSE(bArchiveAppendSeq);
    EXPECT_THAT(archiveLines, IsEmpty());
}

TEST_F(ArchiveSettings, EndpointAndIntervalAreTakenTogetherAndLogged) {
    read(kBoth);
    EXPECT_TRUE(bArchiveEnable);
    EXPECT_EQ("http://e.example/a", sArchiveEndpoint);
    EXPECT_EQ(30U, nArchiveInterval);
    EXPECT_EQ("", sArchiveUsername);
    EXPECT_FALSE(bArchiveAppendSeq);
    EXPECT_THAT(archiveLines,
                ElementsAre("Attempting Caption archive to endpoint http://e.example/a\n",
                            "Logging interval is 30 seconds\n"));
}

TEST_F(ArchiveSettings, TrueEnablesAsYesDoes) {
    read("enable=true\nendpoint=e\ninterval=1\n");
    EXPECT_TRUE(bArchiveEnable);
    EXPECT_EQ("e", sArchiveEndpoint);
}

TEST_F(ArchiveSettings, AnEndpointAloneIsNotTaken) {
    read("enable=yes\nendpoint=http://e.example/a\n");
    EXPECT_TRUE(bArchiveEnable);
    EXPECT_EQ("", sArchiveEndpoint);
    EXPECT_EQ(60U, nArchiveInterval);
    EXPECT_THAT(archiveLines, ElementsAre(kNothingCanBePosted));
}

TEST_F(ArchiveSettings, AnIntervalAloneIsNotTaken) {
    read("enable=yes\ninterval=30\n");
    EXPECT_TRUE(bArchiveEnable);
    EXPECT_EQ("", sArchiveEndpoint);
    EXPECT_EQ(60U, nArchiveInterval);
    EXPECT_THAT(archiveLines, ElementsAre(kNothingCanBePosted));
}

TEST_F(ArchiveSettings, AnEnabledArchiveWithoutBothSaysSo) {
    read("enable=yes\n");
    EXPECT_TRUE(bArchiveEnable);
    EXPECT_THAT(archiveLines, ElementsAre(kNothingCanBePosted));
}

TEST_F(ArchiveSettings, NothingIsReadWhileItIsDisabled) {
    for (const char* sEnable : {"", "enable=no\n", "enable=false\n", "enable=maybe\n"}) {
        read(std::string(sEnable) + "endpoint=http://e.example/a\ninterval=30\nusername=u\n" +
             "password=p\ncontent_type=t\nappend_seq=yes\n");
        EXPECT_FALSE(bArchiveEnable) << sEnable;
        EXPECT_EQ("", sArchiveEndpoint);
        EXPECT_EQ(60U, nArchiveInterval);
        EXPECT_EQ("", sArchiveUsername);
        EXPECT_EQ("", sArchivePassword);
        EXPECT_EQ("", sArchiveContentType);
        EXPECT_FALSE(bArchiveAppendSeq);
        EXPECT_EQ(0U, nLoggedContaining("Attempting")) << sEnable;
    }
}

TEST_F(ArchiveSettings, NoAndFalseDisableWithoutALine) {
    for (const char* sNo : {"no", "false"}) {
        read(std::string("enable=") + sNo + "\nappend_seq=maybe\n");
        EXPECT_THAT(archiveLines, IsEmpty()) << sNo;
    }
}

TEST_F(ArchiveSettings, AnyOtherTextDisablesWithAWarning) {
    for (const std::string sText : {"maybe", "Yes", "TRUE", "1", "", "%s%n"}) {
        read("enable=" + sText + "\n");
        EXPECT_FALSE(bArchiveEnable);
        EXPECT_THAT(archiveLines, ElementsAre("WARNING: unsupported archive enable string: " +
                                              sText + ". Use 'yes' or 'no'\n"));
    }
}

TEST_F(ArchiveSettings, CredentialsAndMediaTypeAreTakenAsTheyAre) {
    read(std::string(kBoth) + "username=the user\npassword=a=b:c#d\ncontent_type=a/b\n");
    EXPECT_EQ("the user", sArchiveUsername);
    EXPECT_EQ("a=b:c#d", sArchivePassword);
    EXPECT_EQ("a/b", sArchiveContentType);
    EXPECT_EQ(0U, nLoggedContaining("a=b:c#d")) << "a password is never logged";
    EXPECT_EQ(2U, archiveLines.size());
}

TEST_F(ArchiveSettings, TheOthersAreReadWithoutAnEndpointToo) {
    read("enable=yes\nusername=u\npassword=p\ncontent_type=t\nappend_seq=yes\n");
    EXPECT_EQ("u", sArchiveUsername);
    EXPECT_EQ("p", sArchivePassword);
    EXPECT_EQ("t", sArchiveContentType);
    EXPECT_TRUE(bArchiveAppendSeq);
}

TEST_F(ArchiveSettings, SequenceNumbersAreYesOrNo) {
    for (const char* sYes : {"yes", "true"}) {
        read(std::string(kBoth) + "append_seq=" + sYes + "\n");
        EXPECT_TRUE(bArchiveAppendSeq) << sYes;
        EXPECT_EQ(2U, archiveLines.size());
    }
    for (const char* sNo : {"no", "false"}) {
        read(std::string(kBoth) + "append_seq=" + sNo + "\n");
        EXPECT_FALSE(bArchiveAppendSeq) << sNo;
        EXPECT_EQ(2U, archiveLines.size());
    }
    for (const std::string sText : {"maybe", "", "2"}) {
        read(kBoth + ("append_seq=" + sText) + "\n");
        EXPECT_FALSE(bArchiveAppendSeq) << sText;
        EXPECT_EQ(1U, nLogged("WARNING: unsupported archive append_seq enable string: " + sText +
                              ". Use 'yes' or 'no'\n"));
    }
}

TEST_F(ArchiveSettings, TheIntervalIsInWholeSecondsAndBounded) {
    const std::pair<const char*, unsigned> cases[] = {
        {"0", 0},
        {"0.9", 0},
        {"1.9", 1},
        {"86400", 86400},
        {"-1", 0},
        {"-1e300", 0},
        {"nan", 0},
        {"text", 0},
        {"", 0},
        {"inf", 4294967295},
        {"1e300", 4294967295},
        {"4294967295", 4294967295},
        {"4294967296", 4294967295},
    };
    for (const auto& [sValue, nSecs] : cases) {
        read(std::string("enable=yes\nendpoint=e\ninterval=") + sValue + "\n");
        EXPECT_EQ(nSecs, nArchiveInterval) << sValue;
        EXPECT_EQ(1U, nLogged("Logging interval is " + std::to_string(nSecs) + " seconds\n"));
    }
}

TEST_F(ArchiveSettings, AnEmptyEndpointIsTaken) {
    read("enable=yes\nendpoint=\ninterval=30\n");
    EXPECT_EQ("", sArchiveEndpoint);
    EXPECT_EQ(30U, nArchiveInterval);
    EXPECT_EQ("Attempting Caption archive to endpoint \n", archiveLines.front());
}

TEST_F(ArchiveSettings, PercentSignsInAnEndpointStayText) {
    read("enable=yes\nendpoint=http://e/%s%n?a=%20\ninterval=30\n");
    EXPECT_EQ("Attempting Caption archive to endpoint http://e/%s%n?a=%20\n", archiveLines.front());
}

}  // namespace
