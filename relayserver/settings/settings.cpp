#include "relayserver/settings/settings.h"

#include <cstdio>
#include <optional>
#include <utility>

#include "base/number_range.h"
#include "connserver/logging.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/setting_keys.h"

int msg_port;
int ssl_msg_port;
int rtp_listen_port[kAudioPrograms];
std::string sCrtFile;
std::string sKeyFile;
std::string sRequestedListenAddr;
std::string sRequestedPrivateListenAddr;
std::string sBindDev;
std::string sBindAddr;
std::string sMyCompany;
std::string sMyName;
std::string sMyPassword;
bool bCS_ssl;
std::uint16_t cs_ssl_port;
unsigned nMaxTimeAwayFromCS;
bool bFecEnable;
bool bArchiveEnable;
std::string sArchiveEndpoint;
unsigned nArchiveInterval;
std::string sArchiveUsername;
std::string sArchivePassword;
std::string sArchiveContentType;
bool bArchiveAppendSeq;
bool bWavecastServer;

namespace {

constexpr SettingsOutcome kGoOn{};
constexpr SettingsOutcome kEndWithError{false, 1};
/// The exit status that a parent process sees when `main` returns -1.
constexpr SettingsOutcome kEndWithMinusOne{false, 255};

/// The text settings with their keys.
const std::pair<const SettingKey&, std::string&> kTexts[] = {
    {kSslPemFile, sCrtFile},
    {kSslKeyFile, sKeyFile},
    {kPublicListenAddr, sRequestedListenAddr},
    {kPrivateListenAddr, sRequestedPrivateListenAddr},
    {kBindDevice, sBindDev},
    {kBindAddress, sBindAddr},
    {kLoginCompany, sMyCompany},
    {kLoginUsername, sMyName},
    {kLoginPassword, sMyPassword},
    {kArchiveEndpoint, sArchiveEndpoint},
    {kArchiveUsername, sArchiveUsername},
    {kArchivePassword, sArchivePassword},
    {kArchiveContentType, sArchiveContentType},
};

template <class Value>
void setDefault(const SettingKey& key, Value& rSetting) {
    rSetting = static_cast<Value>(key.nDefault);
}

void setDefaults() {
    for (const auto& [key, rsSetting] : kTexts) {
        rsSetting.clear();
    }
    setDefault(kPortsTcp, msg_port);
    setDefault(kPortsSsl, ssl_msg_port);
    setDefault(kPortsRtp, rtp_listen_port[0]);
    setDefault(kServersUseSsl, bCS_ssl);
    setDefault(kServersSslPort, cs_ssl_port);
    setDefault(kServersMaxTimeAway, nMaxTimeAwayFromCS);
    setDefault(kFecEnable, bFecEnable);
    setDefault(kArchiveEnable, bArchiveEnable);
    setDefault(kArchiveInterval, nArchiveInterval);
    setDefault(kArchiveAppendSeq, bArchiveAppendSeq);
    setDefault(kFeaturesWcast, bWavecastServer);
}

std::optional<Chameleon> valueOf(const ConfigFile& configFile, const SettingKey& key) {
    return configFile.OptionalValue(key.sSection, key.sKey);
}

void takeText(const ConfigFile& configFile, const SettingKey& key, std::string& rsSetting) {
    if (const auto chValue = valueOf(configFile, key)) {
        rsSetting = std::string(*chValue);
    }
}

void takeNumber(const ConfigFile& configFile, const SettingKey& key, int& rnSetting) {
    if (const auto chValue = valueOf(configFile, key)) {
        rnSetting = nSaturated<int>(*chValue);
    }
}

[[nodiscard]] bool bInRange(int nNumber, const SettingKey& key) {
    return nNumber >= key.nLowest && nNumber <= key.nHighest;
}

/// A yes-or-no setting. Any text but yes, true, no and false counts as no, with `sWarning` (a
/// format for the text) logged unless it is null.
[[nodiscard]] bool bTakeYesOrNo(const ConfigFile& configFile, const SettingKey& key,
                                const char* sWarning) {
    const auto chValue = valueOf(configFile, key);
    if (!chValue) {
        return key.nDefault != 0;
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

/// TLS needs a port, a certificate and a key: unless all three are set, none is used.
void readTls(const ConfigFile& configFile) {
    const auto chCrtFile = valueOf(configFile, kSslPemFile);
    const auto chKeyFile = valueOf(configFile, kSslKeyFile);
    const auto chPort = valueOf(configFile, kPortsSsl);
    if (chCrtFile && chKeyFile && chPort) {
        sCrtFile = std::string(*chCrtFile);
        sKeyFile = std::string(*chKeyFile);
        ssl_msg_port = nSaturated<int>(*chPort);
    }
}

/// Ports and addresses.
void readNetwork(const ConfigFile& configFile) {
    takeNumber(configFile, kPortsTcp, msg_port);
    readTls(configFile);
    takeNumber(configFile, kPortsRtp, rtp_listen_port[0]);
    takeText(configFile, kPublicListenAddr, sRequestedListenAddr);
    takeText(configFile, kPrivateListenAddr, sRequestedPrivateListenAddr);
    takeText(configFile, kBindDevice, sBindDev);
    takeText(configFile, kBindAddress, sBindAddr);
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
    if (!bInRange(msg_port, kPortsTcp)) {
        std::printf("invalid tcp port option %d\n", msg_port);
        return kEndWithError;
    }
    if (ssl_msg_port > kPortsSsl.nHighest) {
        std::printf("invalid ssl port option %d\n", ssl_msg_port);
        return kEndWithError;
    }
    if (!bInRange(rtp_listen_port[0], kPortsRtp)) {
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

/// Reads a required text; if it is missing, logs which one and returns false.
[[nodiscard]] bool bTakeRequired(const ConfigFile& configFile, const SettingKey& key,
                                 std::string& rsSetting) {
    const auto chValue = valueOf(configFile, key);
    if (!chValue) {
        writeToLog(true, "ERROR: required key '%s' in section '%s' of the conf file %s\n", key.sKey,
                   key.sSection, "does not exist");
        return false;
    }
    rsSetting = std::string(*chValue);
    return true;
}

SettingsOutcome readLogin(const ConfigFile& configFile) {
    if (!bTakeRequired(configFile, kLoginCompany, sMyCompany) ||
        !bTakeRequired(configFile, kLoginUsername, sMyName) ||
        !bTakeRequired(configFile, kLoginPassword, sMyPassword)) {
        writeToLog(true, "ERROR: bad login information in conf file\n");
        return kEndWithMinusOne;
    }
    writeToLog(true, "Using company name: %s\n", sMyCompany.c_str());
    writeToLog(true, "Using encoder name: %s\n", sMyName.c_str());
    writeToLog(true, "Using password: %s\n", std::string(sMyPassword.size(), '*').c_str());
    return kGoOn;
}

SettingsOutcome readServerNames(const ConfigFile& configFile) {
    std::optional<Chameleon> chServer = valueOf(configFile, kServersPrimary);
    if (!chServer) {
        writeToLog(true, "no primary server specified in conf file\n");
        return kEndWithMinusOne;
    }
    for (int nBackup = 1; chServer; ++nBackup) {
        addServer(std::string(*chServer));
        chServer = configFile.OptionalValue(kServersBackup.sSection,
                                            kServersBackup.sKey + std::to_string(nBackup));
    }
    return kGoOn;
}

SettingsOutcome readTlsToServers(const ConfigFile& configFile) {
    bCS_ssl = bTakeYesOrNo(configFile, kServersUseSsl, "SSL to connserver");
    if (!bCS_ssl) {
        return kGoOn;
    }
    std::string sPort;
    if (!bTakeRequired(configFile, kServersSslPort, sPort)) {
        return kEndWithError;
    }
    const int nPort = nSaturated<int>(Chameleon(sPort));
    if (!bInRange(nPort, kServersSslPort)) {
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
    if (const auto chSecs = valueOf(configFile, kServersMaxTimeAway)) {
        nMaxTimeAwayFromCS = nSaturated<unsigned>(*chSecs);
    }
    return kGoOn;
}

void readFec(const ConfigFile& configFile) {
    bFecEnable = bTakeYesOrNo(configFile, kFecEnable, nullptr);
    if (bFecEnable) {
        writeToLog(true, "INFO: FEC enabled in log file\n");
    }
}

/// Endpoint and interval are taken only together.
void readArchiveEndpoint(const ConfigFile& configFile) {
    const auto chEndpoint = valueOf(configFile, kArchiveEndpoint);
    const auto chInterval = valueOf(configFile, kArchiveInterval);
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
    bArchiveEnable = bTakeYesOrNo(configFile, kArchiveEnable, "archive");
    if (!bArchiveEnable) {
        return;
    }
    readArchiveEndpoint(configFile);
    takeText(configFile, kArchiveUsername, sArchiveUsername);
    takeText(configFile, kArchivePassword, sArchivePassword);
    takeText(configFile, kArchiveContentType, sArchiveContentType);
    bArchiveAppendSeq = bTakeYesOrNo(configFile, kArchiveAppendSeq, "archive append_seq");
}

void readWavecast(const ConfigFile& configFile) {
    bWavecastServer = bTakeYesOrNo(configFile, kFeaturesWcast, "wavecast");
}

}  // namespace

SettingsOutcome readSettings(const ConfigFile& configFile, const CommandLine& commandLine) {
    setDefaults();
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

void disableFec() {
    bFecEnable = false;
}

void resetSettingsForTest() {
    setDefaults();
}
