/// All that command line and configuration decide; `setting_keys` says what each key may hold.
/// Zero before `readSettings`, afterwards only read, apart from `disableFec`. Main thread.
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

/// What the relay logs in with.
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

/// A FEC socket cannot be had: none is used for the rest of the run.
void disableFec();

/// Whether captions are archived, where they are posted (empty for nowhere) and how old they are
/// allowed to become before (seconds).
extern bool bArchiveEnable;
extern std::string sArchiveEndpoint;
extern unsigned nArchiveInterval;
/// What the archive is told: credentials (no user name, no authentication), the media type (empty
/// for the poster's own) and whether each address carries a sequence number.
extern std::string sArchiveUsername;
extern std::string sArchivePassword;
extern std::string sArchiveContentType;
extern bool bArchiveAppendSeq;

/// Tells each admitted client that this relay serves Wavecast.
extern bool bWavecastServer;

/// What reading the settings came to: go on, or end with this exit status.
struct SettingsOutcome {
    bool bGoOn = true;
    int nExitStatus = 0;
};

/// Reads every setting, in the order in which they are reported, and logs what they came to.
/// The server names go to `serverQ`.
[[nodiscard]] SettingsOutcome readSettings(const ConfigFile& configFile,
                                           const CommandLine& commandLine);

/// Puts every setting back to its default.
void resetSettingsForTest();
