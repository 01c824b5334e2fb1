/// A thin wrapper around libpq. Every function takes an optional connection; with a null one it
/// works on the default connection, which `ConnectSQL` without a handle pointer sets.
/// Diagnostics go to standard output. Only connecting is guarded by a mutex: a connection must
/// not be shared between threads without the callers' own locking.
#pragma once

#include <libpq-fe.h>

#include <string>

/// The default connection; null until a connect succeeds. It keeps its value when the connection
/// is closed, so never hand it to libpq directly.
extern PGconn* pgcpConn;

/// Host and database name are replaced always, user name and password only when non-empty.
void setDefaultDatabaseConnectParams(const std::string& sAddress, const std::string& sDBName,
                                     const std::string& sUsername, const std::string& sPassword);

/// Connects and stores the handle in `*pgc_ret`, or as the default connection without one. The
/// values are put into the connection string as they are, unquoted. False, with the reason on
/// standard output and nothing stored, when that fails.
[[nodiscard]] bool ConnectSQL(const std::string& sAddress, const std::string& sDBName,
                              const std::string& sUsername, const std::string& sPassword,
                              PGconn** pgc_ret = nullptr);

/// `ConnectSQL` with the default parameters.
[[nodiscard]] bool ConnectSQLWithDefaults(PGconn** pgc_ret = nullptr);

/// Executes one statement. True when it succeeded. Except without any connection the result is
/// always stored in `*res_ptr` (it may be null), and the caller must `PQclear` it. A failure is
/// reported, and the connection tested and reset if it is bad; the statement is not repeated. An
/// insert that meets an existing row is taken for harmless and never resets the connection.
bool ExecuteSQL(const char* cpCommand, PGresult** res_ptr, PGconn* pgc = nullptr);

/// Whether a statement that failed with this text may have failed for a lost connection, which is
/// then tested. A row inserted a second time has not.
[[nodiscard]] bool bCallsForReconnect(const char* cpErrorMessage);

/// `s` escaped for use within quotes; empty without a connection or on an escaping error.
[[nodiscard]] std::string SqlEscape(const std::string& s, PGconn* pgc = nullptr);

/// Whether the connection exists and is healthy.
[[nodiscard]] bool CheckSQLConnection(PGconn* pgc = nullptr);

/// Reconnects, if there is a connection; then as `CheckSQLConnection`. May block while it does.
bool ResetSQL(PGconn* pgc = nullptr);

/// Closes the connection, if there is one. The default connection then counts as none.
void DisconnectSQL(PGconn* pgc = nullptr);
