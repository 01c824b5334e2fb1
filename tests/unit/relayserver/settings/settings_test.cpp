#include "relayserver/settings/settings.h"

#include "relayserver/cslink/link_state.h"
#include "relayserver/settings/servers.h"
#include "tests/stubs/logging_stub.h"
#include "tests/unit/relayserver/engine_fixture.h"
#include "tests/unit/relayserver/temp_folder.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class Settings : public EngineTest {
  protected:
    /// What every configuration needs.
    static constexpr const char* kRequired =
        "[Login]\ncompany=Acme\nusername=enc\npassword=abc\n[Servers]\nprimary=one.example\n";

    /// Reads `sText` behind the required keys.
    SettingsOutcome read(const std::string& sText, const CommandLine& commandLine = {}) {
        return readOnly(kRequired + sText, commandLine);
    }
    SettingsOutcome readOnly(const std::string& sText, const CommandLine& commandLine = {}) {
        testing::internal::CaptureStdout();
        const SettingsOutcome outcome =
            readSettings(ConfigFile(_folder.sWrite("relay.conf", sText)), commandLine);
        sPrinted = testing::internal::GetCapturedStdout();
        return outcome;
    }

    static std::vector<std::string> queuedServers() {
        std::vector<std::string> servers;
        for (std::queue<std::string> left = serverQ; !left.empty(); left.pop()) {
            servers.push_back(left.front());
        }
        return servers;
    }

    void expectEnd(const SettingsOutcome& outcome, int nStatus) {
        EXPECT_FALSE(outcome.bGoOn);
        EXPECT_EQ(nStatus, outcome.nExitStatus);
    }

    std::string sPrinted;

  private:
    TempFolder _folder;
};

TEST_F(Settings, DefaultsHoldWhereTheConfigurationIsSilent) {
    EXPECT_TRUE(read("").bGoOn);
    EXPECT_EQ(9736, msg_port);
    EXPECT_EQ(0, ssl_msg_port);
    EXPECT_THAT(rtp_listen_port, ElementsAre(6900, 6902, 6904, 6906, 6908, 6910));
    for (const std::string* psSetting : {&sCrtFile, &sKeyFile, &sRequestedListenAddr,
                                         &sRequestedPrivateListenAddr, &sBindDev, &sBindAddr}) {
        EXPECT_EQ("", *psSetting);
    }
    EXPECT_FALSE(bCS_ssl);
    EXPECT_EQ(0U, nMaxTimeAwayFromCS);
    EXPECT_FALSE(bFecEnable);
    EXPECT_FALSE(bArchiveEnable);
    EXPECT_EQ("", sArchiveEndpoint);
    EXPECT_EQ(60U, nArchiveInterval);
    EXPECT_FALSE(bWavecastServer);
    EXPECT_EQ("", sPrinted);
}

TEST_F(Settings, SaysWhatItCameToInOrder) {
    EXPECT_TRUE(read("").bGoOn);
    EXPECT_THAT(loggedLines(),
                ElementsAre("binding to device *\n", "using port 9736 for tcp\n",
                            "using port range 6900 to 6911 for rtp\n", "Using company name: Acme\n",
                            "Using encoder name: enc\n", "Using password: ***\n"));
}

TEST_F(Settings, SaysEverythingThatIsConfiguredInOrder) {
    EXPECT_TRUE(read("use_ssl=yes\ncs_ssl_port=9737\n"
                     "[Ports]\ntcp=9000\nrtp=7000\n"
                     "[Public]\nlisten_addr=203.0.113.1\n[PrivateNetwork]\nlisten_addr=10.0.0.1\n"
                     "[Bind]\ndevice=eth7\naddress=10.0.0.2\n"
                     "[FEC]\nenable=yes\n[Features]\nwcast=yes\n"
                     "[Archive]\nenable=yes\nendpoint=http://a.example/put\ninterval=30\n")
                    .bGoOn);
    EXPECT_THAT(
        loggedLines(),
        ElementsAre("binding to device eth7\n", "binding to address 10.0.0.2\n",
                    "requesting clients connect at 203.0.113.1\n", "using port 9000 for tcp\n",
                    "using port range 7000 to 7011 for rtp\n", "Using company name: Acme\n",
                    "Using encoder name: enc\n", "Using password: ***\n",
                    "Will connect to connservers using SSL on port 9737\n",
                    "INFO: FEC enabled in log file\n",
                    "Attempting Caption archive to endpoint http://a.example/put\n",
                    "Logging interval is 30 seconds\n"));
    EXPECT_EQ("203.0.113.1", sRequestedListenAddr);
    EXPECT_EQ("10.0.0.1", sRequestedPrivateListenAddr);
    EXPECT_EQ("eth7", sBindDev);
    EXPECT_EQ("10.0.0.2", sBindAddr);
}

TEST_F(Settings, ThePasswordIsNeverLogged) {
    EXPECT_TRUE(readOnly("[Login]\ncompany=a\nusername=b\npassword=secret\n"
                         "[Servers]\nprimary=one.example\n")
                    .bGoOn);
    EXPECT_EQ("secret", sMyPassword);
    EXPECT_EQ(0U, nLoggedContaining("secret"));
    EXPECT_EQ(1U, nLogged("Using password: ******\n"));
}

TEST_F(Settings, AnEmptyPasswordHasNoStars) {
    EXPECT_TRUE(readOnly("[Login]\ncompany=\nusername=\npassword=\n[Servers]\nprimary=x\n").bGoOn);
    EXPECT_EQ(1U, nLogged("Using password: \n"));
    EXPECT_EQ(1U, nLogged("Using company name: \n"));
}

TEST_F(Settings, TheTcpPortHasARange) {
    for (const char* sPort : {"1024", "65535", "9736.9"}) {
        EXPECT_TRUE(read(std::string("[Ports]\ntcp=") + sPort + "\n").bGoOn) << sPort;
    }
    EXPECT_EQ(9736, msg_port) << "the fraction is cut off";
    expectEnd(read("[Ports]\ntcp=1023\n"), 1);
    EXPECT_EQ("invalid tcp port option 1023\n", sPrinted);
    expectEnd(read("[Ports]\ntcp=70000\n"), 1);
    EXPECT_EQ("invalid tcp port option 70000\n", sPrinted);
}

TEST_F(Settings, AnInvalidPortEndsBeforeAnythingIsLogged) {
    expectEnd(read("[Ports]\ntcp=1023\n"), 1);
    expectEnd(read("[Ports]\nrtp=1\n"), 1);
    EXPECT_THAT(loggedLines(), IsEmpty());
    EXPECT_THAT(queuedServers(), IsEmpty());
}

TEST_F(Settings, NumbersThatNoIntHoldsBecomeTheNearest) {
    const std::pair<const char*, const char*> cases[] = {
        {"1e300", "2147483647"},
        {"inf", "2147483647"},
        {"2147483647", "2147483647"},
        {"2147483648", "2147483647"},
        {"-1", "-1"},
        {"-1e300", "-2147483648"},
        {"nan", "0"},
        {"high", "0"},
        {"", "0"},
        {"-0.5", "0"},
        {"1023.999", "1023"},
    };
    for (const auto& [sValue, sShown] : cases) {
        expectEnd(read(std::string("[Ports]\ntcp=") + sValue + "\n"), 1);
        EXPECT_EQ(std::string("invalid tcp port option ") + sShown + "\n", sPrinted) << sValue;
    }
}

TEST_F(Settings, TheRtpPortsHaveARange) {
    EXPECT_TRUE(read("[Ports]\nrtp=65525\n").bGoOn);
    EXPECT_EQ(65535, rtp_listen_port[5]);
    EXPECT_TRUE(read("[Ports]\nrtp=1024\n").bGoOn);
    expectEnd(read("[Ports]\nrtp=65526\n"), 1);
    EXPECT_EQ("invalid rtp port option 65526\n", sPrinted);
    expectEnd(read("[Ports]\nrtp=1023\n"), 1);
    EXPECT_EQ("invalid rtp port option 1023\n", sPrinted);
    expectEnd(read("[Ports]\nrtp=1e300\n"), 1);
    EXPECT_EQ("invalid rtp port option 2147483647\n", sPrinted);
    expectEnd(read("[Ports]\nrtp=-1\n"), 1);
    EXPECT_EQ("invalid rtp port option -1\n", sPrinted);
}

TEST_F(Settings, NoRangeCheckCoversTheFecPorts) {
    EXPECT_TRUE(read("[Ports]\nrtp=65400\n[FEC]\nenable=yes\n").bGoOn);
    EXPECT_EQ(65410, rtp_listen_port[5]);
}

TEST_F(Settings, TheCommandLineOverridesThePorts) {
    CommandLine commandLine;
    commandLine.nTcpPort = 9001;
    commandLine.nFirstRtpPort = 7100;
    EXPECT_TRUE(read("[Ports]\ntcp=9000\nrtp=7000\n", commandLine).bGoOn);
    EXPECT_EQ(9001, msg_port);
    EXPECT_THAT(rtp_listen_port, ElementsAre(7100, 7102, 7104, 7106, 7108, 7110));
}

TEST_F(Settings, TheCommandLineIsCheckedAsWell) {
    CommandLine commandLine;
    commandLine.nTcpPort = 1023;
    expectEnd(read("[Ports]\ntcp=9000\n", commandLine), 1);
    EXPECT_EQ("invalid tcp port option 1023\n", sPrinted);
    commandLine.nTcpPort = -1;
    expectEnd(read("[Ports]\ntcp=9000\n", commandLine), 1);
    EXPECT_EQ("invalid tcp port option -1\n", sPrinted);
}

TEST_F(Settings, ZeroOnTheCommandLineOverridesNothing) {
    EXPECT_TRUE(read("[Ports]\ntcp=9000\nrtp=7000\n").bGoOn);
    EXPECT_EQ(9000, msg_port);
    EXPECT_EQ(7000, rtp_listen_port[0]);
}

TEST_F(Settings, TlsNeedsAllThreeOfItsKeys) {
    EXPECT_TRUE(read("[SSL]\npem_file=c.pem\nkey_file=c.key\n[Ports]\nssl=9740\n").bGoOn);
    EXPECT_EQ(9740, ssl_msg_port);
    EXPECT_EQ("c.pem", sCrtFile);
    EXPECT_EQ("c.key", sKeyFile);
}

TEST_F(Settings, WithOneTlsKeyMissingNoneIsTaken) {
    for (const char* sText : {"[SSL]\npem_file=c.pem\n[Ports]\nssl=9740\n",
                              "[SSL]\nkey_file=c.key\n[Ports]\nssl=9740\n",
                              "[SSL]\npem_file=c.pem\nkey_file=c.key\n"}) {
        EXPECT_TRUE(read(sText).bGoOn);
        EXPECT_EQ(0, ssl_msg_port) << sText;
        EXPECT_EQ("", sCrtFile) << sText;
        EXPECT_EQ("", sKeyFile) << sText;
    }
}

TEST_F(Settings, ATlsPortBeyondTheRangeEndsTheStart) {
    const std::string sFiles = "[SSL]\npem_file=c.pem\nkey_file=c.key\n[Ports]\nssl=";
    EXPECT_TRUE(read(sFiles + "65535\n").bGoOn);
    EXPECT_TRUE(read(sFiles + "-1\n").bGoOn) << "as good as none";
    expectEnd(read(sFiles + "65536\n"), 1);
    EXPECT_EQ("invalid ssl port option 65536\n", sPrinted);
}

TEST_F(Settings, MissingLoginKeysEndTheStart) {
    const char* const texts[] = {
        "[Login]\nusername=enc\npassword=abc\n[Servers]\nprimary=x\n",
        "[Login]\ncompany=Acme\npassword=abc\n[Servers]\nprimary=x\n",
        "[Login]\ncompany=Acme\nusername=enc\n[Servers]\nprimary=x\n",
    };
    for (const char* sText : texts) {
        loggedLines().clear();
        expectEnd(readOnly(sText), 255);
        EXPECT_EQ("ERROR: bad login information in conf file\n", loggedLines().back());
        EXPECT_EQ(0U, nLoggedContaining("Using company name"));
    }
}

TEST_F(Settings, AnEmptyConfigurationEndsForWantOfALogin) {
    expectEnd(readOnly(""), 255);
    EXPECT_EQ(1U, nLogged("ERROR: bad login information in conf file\n"));
}

TEST_F(Settings, AMissingPrimaryServerEndsTheStart) {
    expectEnd(readOnly("[Login]\ncompany=a\nusername=b\npassword=c\n[Servers]\nbackup1=x\n"), 255);
    EXPECT_EQ("no primary server specified in conf file\n", loggedLines().back());
    EXPECT_THAT(queuedServers(), IsEmpty());
}

TEST_F(Settings, ServersAreQueuedInOrder) {
    EXPECT_TRUE(read("backup2=three.example\nbackup1=two.example\n").bGoOn);
    EXPECT_THAT(queuedServers(), ElementsAre("one.example", "two.example", "three.example"));
}

TEST_F(Settings, BackupsEndAtTheFirstMissingNumber) {
    EXPECT_TRUE(read("backup2=three.example\n").bGoOn);
    EXPECT_THAT(queuedServers(), ElementsAre("one.example"));
}

TEST_F(Settings, TenBackupsAreNoLimit) {
    std::string sText;
    for (int i = 1; i <= 12; ++i) {
        sText += "backup" + std::to_string(i) + "=b\n";
    }
    EXPECT_TRUE(read(sText).bGoOn);
    EXPECT_EQ(13U, serverQ.size());
}

TEST_F(Settings, YesAndTrueTurnTlsToTheServersOn) {
    for (const char* sYes : {"yes", "true"}) {
        EXPECT_TRUE(read(std::string("use_ssl=") + sYes + "\ncs_ssl_port=443\n").bGoOn);
        EXPECT_TRUE(bCS_ssl);
        EXPECT_EQ(443U, cs_ssl_port);
    }
    EXPECT_EQ(2U, nLogged("Will connect to connservers using SSL on port 443\n"));
}

TEST_F(Settings, NoAndFalseTurnTlsToTheServersOffWithoutALine) {
    for (const char* sNo : {"no", "false"}) {
        EXPECT_TRUE(read(std::string("use_ssl=") + sNo + "\n").bGoOn);
        EXPECT_FALSE(bCS_ssl);
    }
    EXPECT_EQ(0U, nLoggedContaining("WARNING"));
}

TEST_F(Settings, AnyOtherTextCountsAsNoWithAWarning) {
    for (const char* sText : {"maybe", "Yes", "1", ""}) {
        loggedLines().clear();
        EXPECT_TRUE(
            read(std::string("use_ssl=") + sText + "\n[Features]\nwcast=" + sText + "\n").bGoOn);
        EXPECT_FALSE(bCS_ssl);
        EXPECT_FALSE(bWavecastServer);
        EXPECT_EQ(1U,
                  nLogged(std::string("WARNING: unsupported SSL to connserver enable string: ") +
                          sText + ". Use 'yes' or 'no'\n"));
        EXPECT_EQ(1U, nLogged(std::string("WARNING: unsupported wavecast enable string: ") + sText +
                              ". Use 'yes' or 'no'\n"));
    }
}

TEST_F(Settings, FecKnowsNoWarning) {
    EXPECT_TRUE(read("[FEC]\nenable=maybe\n").bGoOn);
    EXPECT_FALSE(bFecEnable);
    EXPECT_EQ(0U, nLoggedContaining("WARNING"));
    EXPECT_EQ(0U, nLoggedContaining("FEC"));
}

TEST_F(Settings, FecAndWavecastAreTurnedOnByYesOrTrue) {
    EXPECT_TRUE(read("[FEC]\nenable=true\n[Features]\nwcast=true\n").bGoOn);
    EXPECT_TRUE(bFecEnable);
    EXPECT_TRUE(bWavecastServer);
    EXPECT_EQ(1U, nLogged("INFO: FEC enabled in log file\n"));
}

TEST_F(Settings, TlsToTheServersNeedsAPort) {
    expectEnd(read("use_ssl=yes\n"), 1);
    EXPECT_EQ(0U, nLoggedContaining("Will connect to connservers"));
    for (const char* sPort : {"0", "65536", "-1", "1e300", "nan", "none"}) {
        expectEnd(read(std::string("use_ssl=yes\ncs_ssl_port=") + sPort + "\n"), 1);
    }
    EXPECT_TRUE(read("use_ssl=no\ncs_ssl_port=none\n").bGoOn) << "not read without TLS";
}

TEST_F(Settings, TheTimeAwayIsInWholeSeconds) {
    const std::pair<const char*, unsigned> cases[] = {
        {"3600", 3600U},
        {"0.9", 0U},
        {"nan", 0U},
        {"text", 0U},
        {"-1", 0U},
        {"1e300", 4294967295U},
        {"4294967295", 4294967295U},
    };
    for (const auto& [sValue, nSecs] : cases) {
        EXPECT_TRUE(read(std::string("max_time_away_from_cs=") + sValue + "\n").bGoOn);
        EXPECT_EQ(nSecs, nMaxTimeAwayFromCS) << sValue;
    }
}

TEST_F(Settings, TheLogFolderHasNoEffect) {
    EXPECT_TRUE(read("[Logging]\nfolder=/elsewhere\n").bGoOn);
    EXPECT_EQ(0U, nLoggedContaining("elsewhere"));
}

TEST_F(Settings, PercentSignsInTextsStayTexts) {
    EXPECT_TRUE(readOnly("[Login]\ncompany=%s%n\nusername=%d\npassword=%s\n"
                         "[Servers]\nprimary=x\nuse_ssl=%s\n")
                    .bGoOn);
    EXPECT_EQ(1U, nLogged("Using company name: %s%n\n"));
    EXPECT_EQ(1U, nLoggedContaining("enable string: %s. Use"));
}

}  // namespace
