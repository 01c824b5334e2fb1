/// Every key of the configuration file: what it may hold, what holds without it, what it does. The
/// one place that says so; settings are read by these rows and the documents show them.
#pragma once

#include <array>

enum class SettingKind {
    kText,
    kNumber,   ///< a whole number; a fraction is cut off
    kYesOrNo,  ///< yes, true, no or false; any other text counts as no
};

/// What holds when a key is missing.
enum class SettingNeed {
    kOptional,      ///< its default
    kRequired,      ///< the relay does not start
    kTogether,      ///< it and its companions count only together
    kOnlyFirst,     ///< a list: the keys are numbered from 1, up to the first missing number
    kWithSwitch,    ///< required when the yes-or-no key above it says yes
    kWithoutEffect  ///< known, and not used
};

struct SettingKey {
    const char* sSection;
    /// Of a list, the name before the number.
    const char* sKey;
    SettingKind kind;
    SettingNeed need;
    /// The range of a number; one outside ends the start-up where the row of a port says so.
    long nLowest;
    long nHighest;
    /// A number's default; of a yes-or-no key 0, which is no. A text is empty by default.
    long nDefault;
    const char* sMeaning;
};

constexpr long kLowestPort = 1024;
constexpr long kHighestPort = 65535;
/// Six audio programs, two ports apart.
constexpr int kAudioPrograms = 6;
constexpr long kHighestFirstRtpPort = kHighestPort - 2 * (kAudioPrograms - 1);
constexpr long kHighestSecs = 4294967295;

constexpr SettingKey textKey(const char* sSection, const char* sKey, const char* sMeaning,
                             SettingNeed need = SettingNeed::kOptional) {
    return {sSection, sKey, SettingKind::kText, need, 0, 0, 0, sMeaning};
}

constexpr SettingKey yesOrNoKey(const char* sSection, const char* sKey, const char* sMeaning) {
    return {sSection, sKey, SettingKind::kYesOrNo, SettingNeed::kOptional, 0, 1, 0, sMeaning};
}

inline constexpr SettingKey kPortsTcp{
    "Ports",      "tcp", SettingKind::kNumber,        SettingNeed::kOptional, kLowestPort,
    kHighestPort, 9736,  "port for plain TCP clients"};
inline constexpr SettingKey kSslPemFile = textKey(
    "SSL", "pem_file", "certificate chain of the TLS listener, PEM", SettingNeed::kTogether);
inline constexpr SettingKey kSslKeyFile =
    textKey("SSL", "key_file", "its private key, PEM", SettingNeed::kTogether);
inline constexpr SettingKey kPortsSsl{"Ports",
                                      "ssl",
                                      SettingKind::kNumber,
                                      SettingNeed::kTogether,
                                      0,
                                      kHighestPort,
                                      0,
                                      "port for TLS clients; counts only with both files of `SSL`"};
inline constexpr SettingKey kPortsRtp{"Ports",
                                      "rtp",
                                      SettingKind::kNumber,
                                      SettingNeed::kOptional,
                                      kLowestPort,
                                      kHighestFirstRtpPort,
                                      6900,
                                      "first of six UDP audio ports in steps of 2"};
inline constexpr SettingKey kPublicListenAddr =
    textKey("Public", "listen_addr", "IPv4 address at which clients are told to connect");
inline constexpr SettingKey kPrivateListenAddr =
    textKey("PrivateNetwork", "listen_addr", "the same for clients of the private network");
inline constexpr SettingKey kBindDevice =
    textKey("Bind", "device", "network interface of every socket; any when empty");
inline constexpr SettingKey kBindAddress =
    textKey("Bind", "address", "local IPv4 address of every socket; any when empty");
inline constexpr SettingKey kLoggingFolder =
    textKey("Logging", "folder", "without effect: the log has started before the file is read",
            SettingNeed::kWithoutEffect);
inline constexpr SettingKey kLoginCompany =
    textKey("Login", "company", "company of the relay's account at the connection server",
            SettingNeed::kRequired);
inline constexpr SettingKey kLoginUsername =
    textKey("Login", "username", "user name of that account", SettingNeed::kRequired);
inline constexpr SettingKey kLoginPassword =
    textKey("Login", "password", "password of that account", SettingNeed::kRequired);
inline constexpr SettingKey kServersPrimary =
    textKey("Servers", "primary", "host name of the connection server", SettingNeed::kRequired);
inline constexpr SettingKey kServersBackup = textKey(
    "Servers", "backup", "further servers, in order of preference", SettingNeed::kOnlyFirst);
inline constexpr SettingKey kServersUseSsl =
    yesOrNoKey("Servers", "use_ssl", "TLS to the connection server; without it the port is 9736");
inline constexpr SettingKey kServersSslPort{"Servers",
                                            "cs_ssl_port",
                                            SettingKind::kNumber,
                                            SettingNeed::kWithSwitch,
                                            1,
                                            kHighestPort,
                                            0,
                                            "port of the connection server for TLS"};
inline constexpr SettingKey kServersMaxTimeAway{
    "Servers",
    "max_time_away_from_cs",
    SettingKind::kNumber,
    SettingNeed::kOptional,
    0,
    kHighestSecs,
    0,
    "seconds without a connection server after which clients are dropped, and new ones refused "
    "until it is back; 0: never"};
inline constexpr SettingKey kFecEnable =
    yesOrNoKey("FEC", "enable", "UDP error-correction ports 100 and 200 above each audio port");
inline constexpr SettingKey kArchiveEnable =
    yesOrNoKey("Archive", "enable", "archives what stations caption");
inline constexpr SettingKey kArchiveEndpoint =
    textKey("Archive", "endpoint", "HTTP or HTTPS address for posts, at most 1023 characters",
            SettingNeed::kTogether);
inline constexpr SettingKey kArchiveInterval{
    "Archive",
    "interval",
    SettingKind::kNumber,
    SettingNeed::kTogether,
    0,
    kHighestSecs,
    60,
    "age in seconds that captions reach before they are posted; with 0 every source is posted at "
    "every check, also without captions, and none is ever forgotten"};
inline constexpr SettingKey kArchiveUsername =
    textKey("Archive", "username",
            "user for digest authentication; at most 254 characters together with the password");
inline constexpr SettingKey kArchivePassword =
    textKey("Archive", "password", "password of that user");
inline constexpr SettingKey kArchiveContentType =
    textKey("Archive", "content_type", "media type of the posts; `text/json` when empty");
inline constexpr SettingKey kArchiveAppendSeq = yesOrNoKey(
    "Archive", "append_seq",
    "appends `&seq=` and a number to the address, one higher for each attempt; a repeated "
    "attempt keeps its address");
inline constexpr SettingKey kFeaturesWcast = yesOrNoKey(
    "Features", "wcast", "tells each admitted client that this relay is a Wavecast server");

/// All of them, in the order in which they are read.
inline constexpr std::array kSettingKeys{
    &kPortsTcp,           &kSslPemFile,         &kSslKeyFile,        &kPortsSsl,
    &kPortsRtp,           &kPublicListenAddr,   &kPrivateListenAddr, &kBindDevice,
    &kBindAddress,        &kLoggingFolder,      &kLoginCompany,      &kLoginUsername,
    &kLoginPassword,      &kServersPrimary,     &kServersBackup,     &kServersUseSsl,
    &kServersSslPort,     &kServersMaxTimeAway, &kFecEnable,         &kArchiveEnable,
    &kArchiveEndpoint,    &kArchiveInterval,    &kArchiveUsername,   &kArchivePassword,
    &kArchiveContentType, &kArchiveAppendSeq,   &kFeaturesWcast,
};
