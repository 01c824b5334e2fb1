/// Every key of the configuration file: its allowed values, its default and its effect. The only
/// place that defines them; settings are read by these rows, and the documentation shows them.
#pragma once

#include <array>

/// The type of a value.
enum class SettingKind {
    kText,
    kNumber,   ///< a whole number; a fraction is truncated
    kYesOrNo,  ///< yes, true, no or false; any other text counts as no
    kList,     ///< texts under keys numbered from 1, up to the first missing number
};

/// One key.
struct SettingKey {
    const char* sSection;
    /// For a list, the part before the number.
    const char* sKey;
    SettingKind kind;
    /// The range of a number; start-up checks that of ports. A TLS port below 0 counts as none.
    long nLowest = 0;
    long nHighest = 0;
    /// What a number is without the key; a yes-or-no key is no (0), a text empty.
    long nDefault = 0;
    /// What a text may be; empty for anything.
    const char* sTextRange = "";
    /// What the default means, where it does not say so itself.
    const char* sDefaultMeans = "";
    /// The relay does not start without it.
    bool bRequired = false;
    /// The key of the same section beside which it is required.
    const char* sRequiredWith = "";
    const char* sMeaning;
};

inline constexpr long kLowestPort = 1024;
inline constexpr long kHighestPort = 65535;
/// Six audio programs, two ports apart.
inline constexpr int kAudioPrograms = 6;
inline constexpr long kHighestFirstRtpPort = kHighestPort - 2L * (kAudioPrograms - 1);
inline constexpr long kHighestSecs = 4294967295;

inline constexpr SettingKey kPortsTcp{
    .sSection = "Ports",
    .sKey = "tcp",
    .kind = SettingKind::kNumber,
    .nLowest = kLowestPort,
    .nHighest = kHighestPort,
    .nDefault = 9736,
    .sMeaning = "port for plain TCP clients",
};
inline constexpr SettingKey kSslPemFile{
    .sSection = "SSL",
    .sKey = "pem_file",
    .kind = SettingKind::kText,
    .sMeaning = "certificate chain, PEM",
};
inline constexpr SettingKey kSslKeyFile{
    .sSection = "SSL",
    .sKey = "key_file",
    .kind = SettingKind::kText,
    .sMeaning = "its private key, PEM",
};
inline constexpr SettingKey kPortsSsl{
    .sSection = "Ports",
    .sKey = "ssl",
    .kind = SettingKind::kNumber,
    .nLowest = 0,
    .nHighest = kHighestPort,
    .nDefault = 0,
    .sDefaultMeans = "none",
    .sMeaning = "port for TLS clients; used only together with both files of `SSL`",
};
inline constexpr SettingKey kPortsRtp{
    .sSection = "Ports",
    .sKey = "rtp",
    .kind = SettingKind::kNumber,
    .nLowest = kLowestPort,
    .nHighest = kHighestFirstRtpPort,
    .nDefault = 6900,
    .sMeaning = "first of six UDP audio ports in steps of 2",
};
inline constexpr SettingKey kPublicListenAddr{
    .sSection = "Public",
    .sKey = "listen_addr",
    .kind = SettingKind::kText,
    .sTextRange = "IPv4 address",
    .sMeaning =
        "address at which clients are told to connect; one that does not parse is logged and not "
        "announced",
};
inline constexpr SettingKey kPrivateListenAddr{
    .sSection = "PrivateNetwork",
    .sKey = "listen_addr",
    .kind = SettingKind::kText,
    .sTextRange = "IPv4 address",
    .sMeaning = "the same for clients of the private network",
};
inline constexpr SettingKey kBindDevice{
    .sSection = "Bind",
    .sKey = "device",
    .kind = SettingKind::kText,
    .sDefaultMeans = "any",
    .sMeaning =
        "network interface of the listeners, of the audio sockets and of connections to servers "
        "and relays",
};
inline constexpr SettingKey kBindAddress{
    .sSection = "Bind",
    .sKey = "address",
    .kind = SettingKind::kText,
    .sTextRange = "IPv4 address",
    .sDefaultMeans = "any",
    .sMeaning = "local address of the same sockets",
};
inline constexpr SettingKey kLoggingFolder{
    .sSection = "Logging",
    .sKey = "folder",
    .kind = SettingKind::kText,
    .sMeaning = "without effect: the log starts before the file is read",
};
inline constexpr SettingKey kLoginCompany{
    .sSection = "Login",
    .sKey = "company",
    .kind = SettingKind::kText,
    .bRequired = true,
    .sMeaning = "company of the relay's account at the connection server",
};
inline constexpr SettingKey kLoginUsername{
    .sSection = "Login",
    .sKey = "username",
    .kind = SettingKind::kText,
    .bRequired = true,
    .sMeaning = "its user name",
};
inline constexpr SettingKey kLoginPassword{
    .sSection = "Login",
    .sKey = "password",
    .kind = SettingKind::kText,
    .bRequired = true,
    .sMeaning = "its password",
};
inline constexpr SettingKey kServersPrimary{
    .sSection = "Servers",
    .sKey = "primary",
    .kind = SettingKind::kText,
    .bRequired = true,
    .sMeaning = "host name of the connection server",
};
inline constexpr SettingKey kServersBackup{
    .sSection = "Servers",
    .sKey = "backup",
    .kind = SettingKind::kList,
    .sMeaning = "further servers, up to the first missing number",
};
inline constexpr SettingKey kServersUseSsl{
    .sSection = "Servers",
    .sKey = "use_ssl",
    .kind = SettingKind::kYesOrNo,
    .sMeaning = "TLS to the connection server; without it the port is 9736",
};
inline constexpr SettingKey kServersSslPort{
    .sSection = "Servers",
    .sKey = "cs_ssl_port",
    .kind = SettingKind::kNumber,
    .nLowest = 1,
    .nHighest = kHighestPort,
    .nDefault = 0,
    .sRequiredWith = "use_ssl",
    .sMeaning = "port of the connection server for TLS",
};
inline constexpr SettingKey kServersMaxTimeAway{
    .sSection = "Servers",
    .sKey = "max_time_away_from_cs",
    .kind = SettingKind::kNumber,
    .nLowest = 0,
    .nHighest = kHighestSecs,
    .nDefault = 0,
    .sDefaultMeans = "never",
    .sMeaning =
        "seconds without a connection server after which clients are dropped, and new ones refused "
        "until one is back",
};
inline constexpr SettingKey kFecEnable{
    .sSection = "FEC",
    .sKey = "enable",
    .kind = SettingKind::kYesOrNo,
    .sMeaning =
        "UDP error-correction ports at 100 and 200 above each audio port; switched off, with a "
        "warning, when one cannot be bound",
};
inline constexpr SettingKey kArchiveEnable{
    .sSection = "Archive",
    .sKey = "enable",
    .kind = SettingKind::kYesOrNo,
    .sMeaning =
        "archives what stations caption, see [archive.md](archive.md); without it the other keys "
        "of the section are not read",
};
inline constexpr SettingKey kArchiveEndpoint{
    .sSection = "Archive",
    .sKey = "endpoint",
    .kind = SettingKind::kText,
    .sTextRange = "up to 1023 characters",
    .sMeaning =
        "HTTP or HTTPS address that captions are posted to; used only together with `interval`",
};
inline constexpr SettingKey kArchiveInterval{
    .sSection = "Archive",
    .sKey = "interval",
    .kind = SettingKind::kNumber,
    .nLowest = 0,
    .nHighest = kHighestSecs,
    .nDefault = 60,
    .sRequiredWith = "endpoint",
    .sMeaning =
        "age in seconds that captions reach before they are posted; with 0 every source is posted "
        "at every check, also without captions, and none is ever forgotten",
};
inline constexpr SettingKey kArchiveUsername{
    .sSection = "Archive",
    .sKey = "username",
    .kind = SettingKind::kText,
    .sTextRange = "with the password up to 254 characters",
    .sMeaning = "user for digest authentication",
};
inline constexpr SettingKey kArchivePassword{
    .sSection = "Archive",
    .sKey = "password",
    .kind = SettingKind::kText,
    .sTextRange = "see `username`",
    .sMeaning = "the password",
};
inline constexpr SettingKey kArchiveContentType{
    .sSection = "Archive",
    .sKey = "content_type",
    .kind = SettingKind::kText,
    .sDefaultMeans = "`text/json`",
    .sMeaning = "media type of the posts",
};
inline constexpr SettingKey kArchiveAppendSeq{
    .sSection = "Archive",
    .sKey = "append_seq",
    .kind = SettingKind::kYesOrNo,
    .sMeaning = "appends `&seq=` and a number to the address",
};
inline constexpr SettingKey kFeaturesWcast{
    .sSection = "Features",
    .sKey = "wcast",
    .kind = SettingKind::kYesOrNo,
    .sMeaning = "tells each admitted client that this relay is a Wavecast server",
};

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
