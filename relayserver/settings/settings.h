/// The settings from command line and configuration file; `setting_keys` says what each key may
/// hold. Zero before `readSettings` and only read afterwards, apart from `disableFec`.
/// Main thread only.
#pragma once

#include <cstdint>
#include <string>

#include "base/ConfigFile.h"
#include "relayserver/settings/command_line.h"
#include "relayserver/settings/servers.h"
#include "relayserver/settings/setting_keys.h"

/// Port of the plain TCP listener.
extern int msg_port;
/// Port of the TLS listener; 0 for none.
extern int ssl_msg_port;
/// UDP port of each audio program: the first as configured, the others two apart.
extern int rtp_listen_port[kAudioPrograms];

/// Certificate chain and private key of the TLS listener (PEM files).
extern std::string sCrtFile;
extern std::string sKeyFile;

/// Addresses that clients are told to connect at; empty for none.
extern std::string sRequestedListenAddr;
extern std::string sRequestedPrivateListenAddr;

/// Network interface and local IPv4 address of every socket; empty for the system's choice.
extern std::string sBindDev;
extern std::string sBindAddr;

/// The credentials with which the relay logs in.
extern std::string sMyCompany;
extern std::string sMyName;
extern std::string sMyPassword;

/// Whether the connection server is reached by TLS, and on which port.
extern bool bCS_ssl;
extern std::uint16_t cs_ssl_port;

/// Seconds without a connection server after which clients are dropped; 0 for never.
extern unsigned nMaxTimeAwayFromCS;

/// Whether audio is accepted on the forward-error-correction ports as well.
extern bool bFecEnable;

/// Disables FEC for the rest of the run, because a FEC socket could not be opened.
void disableFec();

/// Whether captions are archived, where they are posted (empty for nowhere), and the age at which
/// they are posted (seconds).
extern bool bArchiveEnable;
extern std::string sArchiveEndpoint;
extern unsigned nArchiveInterval;
/// How they are posted: credentials (no user name, no authentication), the media type (empty for
/// the poster's default) and whether each address carries a sequence number.
extern std::string sArchiveUsername;
extern std::string sArchivePassword;
extern std::string sArchiveContentType;
extern bool bArchiveAppendSeq;

/// Whether each admitted client is told that this relay serves Wavecast.
extern bool bWavecastServer;

/// The result of reading the settings: continue, or exit with this status.
struct SettingsOutcome {
    bool bGoOn = true;
    int nExitStatus = 0;
};

/// Reads every setting, in the order in which they are reported, and logs the results. The server
/// names go to `serverQ`. Fails for a missing required key or an invalid port.
[[nodiscard]] SettingsOutcome readSettings(const ConfigFile& configFile,
                                           const CommandLine& commandLine);

/// Puts every setting back to its default.
void resetSettingsForTest();
