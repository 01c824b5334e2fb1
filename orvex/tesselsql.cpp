#include "orvex/tesselsql.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

PGconn* pgcpConn = nullptr;

namespace {

std::mutex connectDBMutex;  // libpq's connect may initialise data that threads share

std::string sDefaultAddr = "127.0.0.1";
std::string sDefaultDBName = "tessel";
std::string sDefaultUsername = "postgres";
std::string sDefaultPassword;

/// `pgcpConn` keeps its value when its connection is closed; this says not to use it.
bool bDefaultFinished = false;

/// The connection to work on, or null: the given one, else the default one while it is open.
PGconn* connectionToUse(PGconn* pgc) {
    if (pgc != nullptr) {
        return pgc;
    }
    return bDefaultFinished ? nullptr : pgcpConn;
}

/// Prints why a statement failed; returns whether the connection must be checked.
bool bReportFailure(const char* cpCommand, const PGresult* res) {
    if (res == nullptr) {
        std::printf("Execution of SQL statement %s failed, no result returned\n", cpCommand);
        return true;
    }
    const char* cpErrorMessage = PQresultErrorMessage(res);
    std::printf("SQL statement %s failed with code %s, message %s\n", cpCommand,
                PQresStatus(PQresultStatus(res)), cpErrorMessage);
    return bCallsForReconnect(cpErrorMessage);
}

void reconnect(PGconn* pgc) {
    std::puts("Retrying connection to SQL");
    ResetSQL(pgc);
    std::puts(CheckSQLConnection(pgc) ? "ResetSQL successful"
                                      : "ResetSQL call not successful, CheckSQLConnection still "
                                        "returning false");
}

}  // namespace

void setDefaultDatabaseConnectParams(const std::string& sAddress, const std::string& sDBName,
                                     const std::string& sUsername, const std::string& sPassword) {
    sDefaultAddr = sAddress;
    sDefaultDBName = sDBName;
    if (!sUsername.empty()) {
        sDefaultUsername = sUsername;
    }
    if (!sPassword.empty()) {
        sDefaultPassword = sPassword;
    }
}

bool ConnectSQL(const std::string& sAddress, const std::string& sDBName,
                const std::string& sUsername, const std::string& sPassword, PGconn** pgc_ret) {
    std::array<char, 4096> achConnect;
    std::snprintf(achConnect.data(), achConnect.size(), "host=%s dbname=%s user=%s password=%s",
                  sAddress.c_str(), sDBName.c_str(), sUsername.c_str(), sPassword.c_str());
    PGconn* pgcNew = nullptr;
    {
        const std::lock_guard<std::mutex> lock(connectDBMutex);
        pgcNew = PQconnectdb(achConnect.data());
    }
    if (PQstatus(pgcNew) == CONNECTION_BAD) {
        std::printf("Connection to db server %s failed: %s\n", achConnect.data(),
                    PQerrorMessage(pgcNew));
        if (pgcNew != nullptr) {  // with null the default connection would be closed instead
            DisconnectSQL(pgcNew);
        }
        return false;
    }
    if (pgc_ret != nullptr) {
        *pgc_ret = pgcNew;
    } else {
        pgcpConn = pgcNew;
        bDefaultFinished = false;
    }
    return true;
}

bool ConnectSQLWithDefaults(PGconn** pgc_ret) {
    return ConnectSQL(sDefaultAddr, sDefaultDBName, sDefaultUsername, sDefaultPassword, pgc_ret);
}

bool ExecuteSQL(const char* cpCommand, PGresult** res_ptr, PGconn* pgc) {
    PGconn* pgcUsed = connectionToUse(pgc);
    if (pgcUsed == nullptr) {
        std::puts("No SQL Connection!");
        return false;
    }
    *res_ptr = PQexec(pgcUsed, cpCommand);
    const ExecStatusType status = PQresultStatus(*res_ptr);
    if (status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK) {
        return true;
    }
    const bool bRetrySqlConnect = bReportFailure(cpCommand, *res_ptr);
    if (bRetrySqlConnect && !CheckSQLConnection(pgcUsed)) {
        reconnect(pgcUsed);
    }
    return false;
}

bool bCallsForReconnect(const char* cpErrorMessage) {
    return std::strstr(cpErrorMessage, "duplicate key value violates unique constraint") == nullptr;
}

std::string SqlEscape(const std::string& s, PGconn* pgc) {
    PGconn* pgcUsed = connectionToUse(pgc);
    if (pgcUsed == nullptr) {
        return {};
    }
    std::vector<char> achEscaped(2 * s.size() + 1);
    int nError = 0;
    const std::size_t nLen =
        PQescapeStringConn(pgcUsed, achEscaped.data(), s.c_str(), s.size(), &nError);
    if (nError != 0) {
        std::printf("SQL escape conversion error! string was '%s'\n", s.c_str());
        return {};
    }
    return {achEscaped.data(), nLen};
}

bool CheckSQLConnection(PGconn* pgc) {
    const PGconn* pgcUsed = connectionToUse(pgc);
    return pgcUsed != nullptr && PQstatus(pgcUsed) == CONNECTION_OK;
}

bool ResetSQL(PGconn* pgc) {
    PGconn* pgcUsed = connectionToUse(pgc);
    if (pgcUsed != nullptr) {
        PQreset(pgcUsed);
    }
    return CheckSQLConnection(pgcUsed);
}

void DisconnectSQL(PGconn* pgc) {
    PGconn* pgcUsed = connectionToUse(pgc);
    if (pgcUsed == nullptr) {
        return;
    }
    PQfinish(pgcUsed);
    if (pgcUsed == pgcpConn) {
        bDefaultFinished = true;
    }
}
