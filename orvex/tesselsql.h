/// A thin wrapper around libpq. Every function takes an optional connection; with a null one it
/// uses the default connection, which `ConnectSQL` sets when it is given no handle pointer.
/// Diagnostics go to standard output. Any thread, but only connecting is guarded by a mutex:
/// callers that share a connection between threads must lock it themselves.
#pragma once

#include <libpq-fe.h>

#include <string>

/// The default connection; null until a connect succeeds. It keeps its value when the connection
/// is closed, so never pass it to libpq directly.
extern PGconn* pgcpConn;

/// Sets the parameters of `ConnectSQLWithDefaults`: host and database name always, user name and
/// password only when they are not empty.
void setDefaultDatabaseConnectParams(const std::string& sAddress, const std::string& sDBName,
                                     const std::string& sUsername, const std::string& sPassword);

/// Connects and stores the handle in `*pgc_ret`, or as the default connection if `pgc_ret` is null.
/// The values are put into the connection string as they are, unquoted. Returns false if that
/// fails, with the reason on standard output and nothing stored. May block.
[[nodiscard]] bool ConnectSQL(const std::string& sAddress, const std::string& sDBName,
                              const std::string& sUsername, const std::string& sPassword,
                              PGconn** pgc_ret = nullptr);

/// `ConnectSQL` with the default parameters.
[[nodiscard]] bool ConnectSQLWithDefaults(PGconn** pgc_ret = nullptr);

/// Executes one statement and returns whether it succeeded. Unless there is no connection at all,
/// the result is stored in `*res_ptr` (it may be null), and the caller must `PQclear` it. A failure
/// is reported on standard output, and the connection is checked and reset if it is bad; the
/// statement is not repeated. A duplicate key is reported but never resets the connection.
bool ExecuteSQL(const char* cpCommand, PGresult** res_ptr, PGconn* pgc = nullptr);

/// Whether a statement that failed with this text may have failed because the connection was lost;
/// false only for a duplicate key.
[[nodiscard]] bool bCallsForReconnect(const char* cpErrorMessage);

/// `s` escaped for use within quotes; empty without a connection, or if it cannot be escaped, which
/// is reported on standard output.
[[nodiscard]] std::string SqlEscape(const std::string& s, PGconn* pgc = nullptr);

/// Whether the connection exists and is healthy.
[[nodiscard]] bool CheckSQLConnection(PGconn* pgc = nullptr);

/// Reconnects, if there is a connection, and returns `CheckSQLConnection`. May block.
bool ResetSQL(PGconn* pgc = nullptr);

/// Closes the connection, if there is one. A closed default connection counts as none.
void DisconnectSQL(PGconn* pgc = nullptr);
