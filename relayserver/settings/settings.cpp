#include "relayserver/settings/settings.h"

#include <cstdio>
#include <optional>

#include "base/number_range.h"
#include "connserver/logging.h"
#include "relayserver/cslink/link_state.h"

constexpr unsigned kDefaultArchiveInterval = 60;

int msg_port = 9736;
int ssl_msg_port = 0;
int rtp_listen_port[kAudioPrograms] = {6900};
std::string sCrtFile;
std::string sKeyFile;
std::string sRequestedListenAddr;
std::string sRequestedPrivateListenAddr;
std::string sBindDev;
std::string sBindAddr;
std::string sMyCompany;
std::string sMyName;
std::string sMyPassword;
bool bCS_ssl = false;
std::uint16_t cs_ssl_port = 0;
unsigned nMaxTimeAwayFromCS = 0;
bool bFecEnable = false;
bool bArchiveEnable = false;
std::string sArchiveEndpoint;
unsigned nArchiveInterval = kDefaultArchiveInterval;
std::string sArchiveUsername;
std::string sArchivePassword;
std::string sArchiveContentType;
bool bArchiveAppendSeq = false;
bool bWavecastServer = false;

namespace {

constexpr SettingsOutcome kGoOn{};
constexpr SettingsOutcome kEndWithError{false, 1};
/// What `main` returning -1 looks like from outside.
constexpr SettingsOutcome kEndWithMinusOne{false, 255};

constexpr int kLowestPort = 1024;
constexpr int kHighestPort = 65535;

void takeText(const ConfigFile& configFile, const char* sSection, const char* sKey,
              std::string& rsSetting) {
    if (const auto chValue = configFile.OptionalValue(sSection, sKey)) {
        rsSetting = std::string(*chValue);
    }
}

void takeNumber(const ConfigFile& configFile, const char* sSection, const char* sKey,
                int& rnSetting) {
    if (const auto chValue = configFile.OptionalValue(sSection, sKey)) {
        rnSetting = nSaturated<int>(*chValue);
    }
}

/// A yes-or-no setting. Any text but yes, true, no and false counts as no, with `sWarning` (a
/// format for the text) logged unless it is null.
bool bTakeYesOrNo(const ConfigFile& configFile, const char* sSection, const char* sKey,
                  const char* sWarning) {
    const auto chValue = configFile.OptionalValue(sSection, sKey);
    if (!chValue) {
        return false;
    }
    const std::string sValue(*chValue);
    if (sValue == "yes" || sValue == "true") {
        return true;
    }
    if (sWarning != nullptr && sValue != "no" && sValue != "false") {
        writeToLog(true, "WARNING: unsupported %s enable string: %s. Use 'yes' or 'no'\n", sWarning,
                   sValue.c_str());
    }
    return false;
}

/// TLS needs a port, a certificate and a key: two of them are as good as none.
void readTls(const ConfigFile& configFile) {
    const auto chCrtFile = configFile.OptionalValue("SSL", "pem_file");
    const auto chKeyFile = configFile.OptionalValue("SSL", "key_file");
    const auto chPort = configFile.OptionalValue("Ports", "ssl");
    if (chCrtFile && chKeyFile && chPort) {
        sCrtFile = std::string(*chCrtFile);
        sKeyFile = std::string(*chKeyFile);
        ssl_msg_port = nSaturated<int>(*chPort);
    }
}

/// Ports and addresses. The key `Logging/folder` is known but has no effect: logging has started
/// before the configuration is read.
void readNetwork(const ConfigFile& configFile) {
    takeNumber(configFile, "Ports", "tcp", msg_port);
    readTls(configFile);
    takeNumber(configFile, "Ports", "rtp", rtp_listen_port[0]);
    takeText(configFile, "Public", "listen_addr", sRequestedListenAddr);
    takeText(configFile, "PrivateNetwork", "listen_addr", sRequestedPrivateListenAddr);
    takeText(configFile, "Bind", "device", sBindDev);
    takeText(configFile, "Bind", "address", sBindAddr);
}

void overrideByCommandLine(const CommandLine& commandLine) {
    if (commandLine.nTcpPort != 0) {
        msg_port = commandLine.nTcpPort;
    }
    if (commandLine.nFirstRtpPort != 0) {
        rtp_listen_port[0] = commandLine.nFirstRtpPort;
    }
}

SettingsOutcome checkPorts() {
    if (msg_port < kLowestPort || msg_port > kHighestPort) {
        std::printf("invalid tcp port option %d\n", msg_port);
        return kEndWithError;
    }
    if (ssl_msg_port > kHighestPort) {
        std::printf("invalid ssl port option %d\n", ssl_msg_port);
        return kEndWithError;
    }
    constexpr int kHighestFirstRtpPort = kHighestPort - 2 * (kAudioPrograms - 1);
    if (rtp_listen_port[0] < kLowestPort || rtp_listen_port[0] > kHighestFirstRtpPort) {
        std::printf("invalid rtp port option %d\n", rtp_listen_port[0]);
        return kEndWithError;
    }
    for (int i = 1; i < kAudioPrograms; ++i) {
        rtp_listen_port[i] = rtp_listen_port[0] + 2 * i;
    }
    return kGoOn;
}

void logNetwork() {
    writeToLog(true, "binding to device %s\n", sBindDev.empty() ? "*" : sBindDev.c_str());
    if (!sBindAddr.empty()) {
        writeToLog(true, "binding to address %s\n", sBindAddr.c_str());
    }
    if (!sRequestedListenAddr.empty()) {
        writeToLog(true, "requesting clients connect at %s\n", sRequestedListenAddr.c_str());
    }
    writeToLog(true, "using port %d for tcp\n", msg_port);
    writeToLog(true, "using port range %d to %d for rtp\n", rtp_listen_port[0],
               rtp_listen_port[kAudioPrograms - 1] + 1);
}

/// A required text; when it is missing says which, and returns false.
[[nodiscard]] bool bTakeRequired(const ConfigFile& configFile, const char* sSection,
                                 const char* sKey, std::string& rsSetting) {
    const auto chValue = configFile.OptionalValue(sSection, sKey);
    if (!chValue) {
        writeToLog(true, "ERROR: required key '%s' in section '%s' of the conf file %s\n", sKey,
                   sSection, "does not exist");
        return false;
    }
    rsSetting = std::string(*chValue);
    return true;
}

SettingsOutcome readLogin(const ConfigFile& configFile) {
    if (!bTakeRequired(configFile, "Login", "company", sMyCompany) ||
        !bTakeRequired(configFile, "Login", "username", sMyName) ||
        !bTakeRequired(configFile, "Login", "password", sMyPassword)) {
        writeToLog(true, "ERROR: bad login information in conf file\n");
        return kEndWithMinusOne;
    }
    writeToLog(true, "Using company name: %s\n", sMyCompany.c_str());
    writeToLog(true, "Using encoder name: %s\n", sMyName.c_str());
    writeToLog(true, "Using password: %s\n", std::string(sMyPassword.size(), '*').c_str());
    return kGoOn;
}

SettingsOutcome readServerNames(const ConfigFile& configFile) {
    std::optional<Chameleon> chServer = configFile.OptionalValue("Servers", "primary");
    if (!chServer) {
        writeToLog(true, "no primary server specified in conf file\n");
        return kEndWithMinusOne;
    }
    for (int nBackup = 1; chServer; ++nBackup) {
        serverQ.push(std::string(*chServer));
        chServer = configFile.OptionalValue("Servers", "backup" + std::to_string(nBackup));
    }
    return kGoOn;
}

SettingsOutcome readTlsToServers(const ConfigFile& configFile) {
    bCS_ssl = bTakeYesOrNo(configFile, "Servers", "use_ssl", "SSL to connserver");
    if (!bCS_ssl) {
        return kGoOn;
    }
    std::string sPort;
    if (!bTakeRequired(configFile, "Servers", "cs_ssl_port", sPort)) {
        return kEndWithError;
    }
    const int nPort = nSaturated<int>(Chameleon(sPort));
    if (nPort < 1 || nPort > kHighestPort) {
        writeToLog(true, "ERROR: key 'cs_ssl_port' in section 'Servers' is no port: %s\n",
                   sPort.c_str());
        return kEndWithError;
    }
    cs_ssl_port = static_cast<std::uint16_t>(nPort);
    writeToLog(true, "Will connect to connservers using SSL on port %u\n", cs_ssl_port);
    return kGoOn;
}

SettingsOutcome readServers(const ConfigFile& configFile) {
    const SettingsOutcome namesOutcome = readServerNames(configFile);
    if (!namesOutcome.bGoOn) {
        return namesOutcome;
    }
    const SettingsOutcome tlsOutcome = readTlsToServers(configFile);
    if (!tlsOutcome.bGoOn) {
        return tlsOutcome;
    }
    if (const auto chSecs = configFile.OptionalValue("Servers", "max_time_away_from_cs")) {
        nMaxTimeAwayFromCS = nSaturated<unsigned>(*chSecs);
    }
    return kGoOn;
}

void readFec(const ConfigFile& configFile) {
    bFecEnable = bTakeYesOrNo(configFile, "FEC", "enable", nullptr);
    if (bFecEnable) {
        writeToLog(true, "INFO: FEC enabled in log file\n");
    }
}

/// Endpoint and interval are taken only together.
void readArchiveEndpoint(const ConfigFile& configFile) {
    const auto chEndpoint = configFile.OptionalValue("Archive", "endpoint");
    const auto chInterval = configFile.OptionalValue("Archive", "interval");
    if (!chEndpoint || !chInterval) {
        writeToLog(true, "WARNING: archive without endpoint and interval, nothing can be posted\n");
        return;
    }
    sArchiveEndpoint = std::string(*chEndpoint);
    nArchiveInterval = nSaturated<unsigned>(*chInterval);
    writeToLog(true, "Attempting Caption archive to endpoint %s\n", sArchiveEndpoint.c_str());
    writeToLog(true, "Logging interval is %u seconds\n", nArchiveInterval);
}

void readArchive(const ConfigFile& configFile) {
    bArchiveEnable = bTakeYesOrNo(configFile, "Archive", "enable", "archive");
    if (!bArchiveEnable) {
        return;
    }
    readArchiveEndpoint(configFile);
    takeText(configFile, "Archive", "username", sArchiveUsername);
    takeText(configFile, "Archive", "password", sArchivePassword);
    takeText(configFile, "Archive", "content_type", sArchiveContentType);
    bArchiveAppendSeq = bTakeYesOrNo(configFile, "Archive", "append_seq", "archive append_seq");
}

void readWavecast(const ConfigFile& configFile) {
    bWavecastServer = bTakeYesOrNo(configFile, "Features", "wcast", "wavecast");
}

}  // namespace

SettingsOutcome readSettings(const ConfigFile& configFile, const CommandLine& commandLine) {
    readNetwork(configFile);
    overrideByCommandLine(commandLine);
    if (const SettingsOutcome outcome = checkPorts(); !outcome.bGoOn) {
        return outcome;
    }
    logNetwork();
    if (const SettingsOutcome outcome = readLogin(configFile); !outcome.bGoOn) {
        return outcome;
    }
    if (const SettingsOutcome outcome = readServers(configFile); !outcome.bGoOn) {
        return outcome;
    }
    readFec(configFile);
    readArchive(configFile);
    readWavecast(configFile);
    return kGoOn;
}

void resetSettingsForTest() {
    msg_port = 9736;
    ssl_msg_port = 0;
    rtp_listen_port[0] = 6900;
    for (std::string* psSetting :
         {&sCrtFile, &sKeyFile, &sRequestedListenAddr, &sRequestedPrivateListenAddr, &sBindDev,
          &sBindAddr, &sMyCompany, &sMyName, &sMyPassword, &sArchiveEndpoint, &sArchiveUsername,
          &sArchivePassword, &sArchiveContentType}) {
        psSetting->clear();
    }
    bCS_ssl = false;
    cs_ssl_port = 0;
    nMaxTimeAwayFromCS = 0;
    bFecEnable = false;
    bArchiveEnable = false;
    nArchiveInterval = kDefaultArchiveInterval;
    bArchiveAppendSeq = false;
    bWavecastServer = false;
}
