#include "orvex/tesselsql.h"

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>

#include "orvex/misc_utils.h"
#include "tests/unit/orvex/socket_fixtures.h"

namespace {

using namespace std::string_literals;
using testing::HasSubstr;
using testing::StartsWith;

std::string sNumber(std::size_t nNumber) {
    const auto nNet = htonl(static_cast<std::uint32_t>(nNumber));
    return {reinterpret_cast<const char*>(&nNet), sizeof(nNet)};
}

std::string sMessage(char chType, const std::string& sBody) {
    return chType + sNumber(sBody.size() + 4) + sBody;
}

/// Implements as much of the database's protocol as one connection at a time needs. A statement
/// that begins with "dup" or "bad" fails with such an error; "die" ends the connection.
class StandInServer {
  public:
    StandInServer() : listener(socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
        socklen_t nLen = sizeof(address);
        getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &nLen);
        nPort = ntohs(address.sin_port);
    }
    ~StandInServer() { stop(); }

    void start() {
        EXPECT_EQ(listen(listener.get(), 5), 0);
        server = std::thread([this] { serve(); });
    }
    /// From now on connections are refused.
    void stop() {
        bStop = true;
        if (server.joinable()) {
            server.join();
        }
        listener.closeNow();
    }

    int nPort = 0;
    std::atomic<int> nConnections{0};

  private:
    /// False when the server must stop.
    [[nodiscard]] bool bWaitForInput(int fd) const {
        pollfd pfd{fd, POLLIN, 0};
        while (!bStop) {
            if (poll(&pfd, 1, 5) > 0) {
                return true;
            }
        }
        return false;
    }

    void serve() {
        while (bWaitForInput(listener.get())) {
            const Fd connection(accept(listener.get(), nullptr, nullptr));
            ++nConnections;
            (void)sReadBody(connection.get());  // the start-up message
            send(connection.get(), sMessage('R', sNumber(0)) +
                                       sMessage('S', "client_encoding\0UTF8\0"s) +
                                       sMessage('Z', "I"));
            while (bAnswerOne(connection.get())) {
            }
        }
    }

    [[nodiscard]] bool bAnswerOne(int fd) const {
        char chType = 0;
        if (!bWaitForInput(fd) || util_read_n(fd, &chType, 1) != 1 || chType != 'Q') {
            return false;
        }
        const std::string sStatement = sReadBody(fd);
        if (sStatement.starts_with("die")) {
            return false;
        }
        send(fd, sAnswerTo(sStatement) + sMessage('Z', "I"));
        return true;
    }

    [[nodiscard]] static std::string sAnswerTo(const std::string& sStatement) {
        if (sStatement.starts_with("dup")) {
            return sMessage('E',
                            "SERROR\0C23505\0"
                            "Mduplicate key value violates unique constraint \"one\"\0\0"s);
        }
        if (sStatement.starts_with("bad")) {
            return sMessage('E', "SERROR\0C42601\0Msyntax error\0\0"s);
        }
        if (sStatement.starts_with("SELECT")) {
            return sMessage('T', "\0\0"s) + sMessage('C', "SELECT 0\0"s);
        }
        return sMessage('C', "INSERT 0 1\0"s);
    }

    static std::string sReadBody(int fd) {
        std::uint32_t nNet = 0;
        if (util_read_n(fd, &nNet, 4) != 4) {
            return {};
        }
        std::string sBody(ntohl(nNet) - 4, '\0');
        EXPECT_EQ(util_read_n(fd, sBody.data(), static_cast<int>(sBody.size())),
                  static_cast<int>(sBody.size()));
        return sBody;
    }

    static void send(int fd, const std::string& sBytes) {
        EXPECT_EQ(util_write_n(fd, sBytes.data(), static_cast<int>(sBytes.size())),
                  static_cast<int>(sBytes.size()));
    }

    Fd listener;
    std::thread server;
    std::atomic<bool> bStop{false};
};

class SqlTest : public testing::Test {
  protected:
    SqlTest() {
        setenv("PGPORT", std::to_string(server.nPort).c_str(), 1);
        setenv("PGSSLMODE", "disable", 1);
        setenv("PGGSSENCMODE", "disable", 1);
        setenv("PGCONNECT_TIMEOUT", "10", 1);
    }
    ~SqlTest() override {
        DisconnectSQL();
        pgcpConn = nullptr;
    }
    void connectDefault() {
        server.start();
        ASSERT_TRUE(ConnectSQL("127.0.0.1", "tessel", "postgres", ""));
    }
    /// What executing prints; the outcome is in `bOK` and `status`.
    std::string sExecute(const char* cpStatement, PGconn* pgc = nullptr) {
        PGresult* res = nullptr;
        testing::internal::CaptureStdout();
        bOK = ExecuteSQL(cpStatement, &res, pgc);
        const std::string sOut = testing::internal::GetCapturedStdout();
        status = PQresultStatus(res);
        bHasResult = res != nullptr;
        PQclear(res);
        return sOut;
    }

    StandInServer server;
    bool bOK = false;
    bool bHasResult = false;
    ExecStatusType status = PGRES_EMPTY_QUERY;
};

}  // namespace

TEST_F(SqlTest, WithoutAnyConnectionNothingIsDone) {
    auto* const pUntouched = reinterpret_cast<PGresult*>(this);
    PGresult* res = pUntouched;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(ExecuteSQL("SELECT", &res));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "No SQL Connection!\n");
    EXPECT_EQ(res, pUntouched);
    EXPECT_FALSE(CheckSQLConnection());
    EXPECT_FALSE(ResetSQL());
    EXPECT_EQ(SqlEscape("a'b"), "");
    DisconnectSQL();
}

TEST_F(SqlTest, ARefusedConnectionReportsTheWholeConnectionString) {
    PGconn* pgc = nullptr;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(ConnectSQL("127.0.0.1", "tessel", "postgres", "", &pgc));
    EXPECT_FALSE(ConnectSQL("127.0.0.1", "tessel", "postgres", ""));
    const std::string sOut = testing::internal::GetCapturedStdout();
    EXPECT_THAT(sOut, StartsWith("Connection to db server host=127.0.0.1 dbname=tessel "
                                 "user=postgres password= failed: "));
    EXPECT_THAT(sOut, HasSubstr("Connection refused"));
    EXPECT_EQ(pgc, nullptr);
    EXPECT_EQ(pgcpConn, nullptr);
}

TEST_F(SqlTest, AnOverlongConnectionStringIsTruncated) {
    testing::internal::CaptureStdout();
    EXPECT_FALSE(ConnectSQL("127.0.0.1", std::string(5000, 'd'), "postgres", ""));
    const std::string sOut = testing::internal::GetCapturedStdout();
    const std::string sStart = "Connection to db server ";
    const std::string sCut =
        "host=127.0.0.1 dbname=" + std::string(4095 - "host=127.0.0.1 dbname="s.size(), 'd');
    EXPECT_THAT(sOut, StartsWith(sStart + sCut + " failed: "));
}

TEST_F(SqlTest, AnEmptyUserOrPasswordKeepsTheDefaultOne) {
    const auto sConnectionString = [] {
        testing::internal::CaptureStdout();
        EXPECT_FALSE(ConnectSQLWithDefaults());
        const std::string sOut = testing::internal::GetCapturedStdout();
        return sOut.substr(0, sOut.find(" failed:"));
    };
    const std::string sStart = "Connection to db server ";
    EXPECT_EQ(sConnectionString(), sStart + "host=127.0.0.1 dbname=tessel user=postgres password=");
    setDefaultDatabaseConnectParams("127.0.0.2", "other", "me", "secret");
    EXPECT_EQ(sConnectionString(), sStart + "host=127.0.0.2 dbname=other user=me password=secret");
    setDefaultDatabaseConnectParams("127.0.0.1", "tessel", "", "");
    EXPECT_EQ(sConnectionString(), sStart + "host=127.0.0.1 dbname=tessel user=me password=secret");
    setDefaultDatabaseConnectParams("127.0.0.1", "tessel", "postgres", "");
}

TEST_F(SqlTest, ExecutesOnTheDefaultConnection) {
    connectDefault();
    EXPECT_TRUE(CheckSQLConnection());
    EXPECT_EQ(sExecute("INSERT"), "");
    EXPECT_TRUE(bOK);
    EXPECT_EQ(status, PGRES_COMMAND_OK);
    EXPECT_EQ(sExecute("SELECT"), "");
    EXPECT_TRUE(bOK);
    EXPECT_EQ(status, PGRES_TUPLES_OK);
}

TEST_F(SqlTest, ConnectingWithAHandlePointerLeavesTheDefaultAlone) {
    server.start();
    PGconn* pgc = nullptr;
    ASSERT_TRUE(ConnectSQL("127.0.0.1", "tessel", "postgres", "", &pgc));
    EXPECT_EQ(pgcpConn, nullptr);
    EXPECT_FALSE(CheckSQLConnection());
    EXPECT_TRUE(CheckSQLConnection(pgc));
    EXPECT_EQ(sExecute("SELECT", pgc), "");
    EXPECT_TRUE(bOK);
    DisconnectSQL(pgc);
}

TEST_F(SqlTest, AFailedStatementKeepsAHealthyConnection) {
    connectDefault();
    EXPECT_EQ(sExecute("bad"),
              "SQL statement bad failed with code PGRES_FATAL_ERROR, message ERROR:  syntax "
              "error\n\n");
    EXPECT_FALSE(bOK);
    EXPECT_TRUE(bHasResult);
    EXPECT_TRUE(CheckSQLConnection());
    EXPECT_EQ(server.nConnections, 1);
}

TEST_F(SqlTest, ADuplicateKeyIsReportedOnly) {
    connectDefault();
    EXPECT_EQ(sExecute("dup"),
              "SQL statement dup failed with code PGRES_FATAL_ERROR, message ERROR:  duplicate key "
              "value violates unique constraint \"one\"\n\n");
    EXPECT_FALSE(bOK);
    EXPECT_EQ(server.nConnections, 1);
}

TEST(Sql, ADuplicateKeyNeverCallsForAReconnect) {
    EXPECT_FALSE(
        bCallsForReconnect("ERROR:  duplicate key value violates unique constraint \"a\""));
    EXPECT_TRUE(bCallsForReconnect("ERROR:  new row violates check constraint"));
    EXPECT_TRUE(bCallsForReconnect("server closed the connection unexpectedly"));
    EXPECT_TRUE(bCallsForReconnect(""));
}

TEST_F(SqlTest, ALostConnectionIsReestablished) {
    connectDefault();
    const std::string sOut = sExecute("die");
    EXPECT_THAT(sOut, StartsWith("SQL statement die failed with code PGRES_FATAL_ERROR, message "));
    EXPECT_TRUE(sOut.ends_with("Retrying connection to SQL\nResetSQL successful\n")) << sOut;
    EXPECT_FALSE(bOK) << "the statement is not repeated";
    EXPECT_EQ(server.nConnections, 2);
    EXPECT_EQ(sExecute("SELECT"), "");
}

TEST_F(SqlTest, ALostServerIsReportedUntilItIsBack) {
    const std::string sNoReset =
        "Retrying connection to SQL\n"
        "ResetSQL call not successful, CheckSQLConnection still returning false\n";
    connectDefault();
    server.stop();
    const std::string sOut = sExecute("SELECT");
    EXPECT_TRUE(sOut.ends_with(sNoReset)) << sOut;
    EXPECT_FALSE(CheckSQLConnection());
    EXPECT_EQ(sExecute("SELECT"),
              "Execution of SQL statement SELECT failed, no result returned\n" + sNoReset);
    EXPECT_FALSE(bHasResult);
    EXPECT_FALSE(ResetSQL());
}

TEST_F(SqlTest, ResettingAHealthyConnectionConnectsAgain) {
    connectDefault();
    EXPECT_TRUE(ResetSQL());
    EXPECT_EQ(server.nConnections, 2);
}

TEST_F(SqlTest, ADisconnectedDefaultIsNoConnection) {
    connectDefault();
    const PGconn* const pgcBefore = pgcpConn;
    DisconnectSQL();
    EXPECT_EQ(pgcpConn, pgcBefore) << "the pointer is kept, only not followed";
    EXPECT_FALSE(CheckSQLConnection());
    EXPECT_EQ(sExecute("SELECT"), "No SQL Connection!\n");
    EXPECT_FALSE(ResetSQL());
    EXPECT_EQ(SqlEscape("a"), "");
    DisconnectSQL();
    ASSERT_TRUE(ConnectSQL("127.0.0.1", "tessel", "postgres", ""));
    EXPECT_TRUE(CheckSQLConnection());
}

TEST_F(SqlTest, EscapesQuotes) {
    connectDefault();
    EXPECT_EQ(SqlEscape("it's"), "it''s");
    EXPECT_EQ(SqlEscape(""), "");
}

TEST_F(SqlTest, TextThatCannotBeEscapedGivesNothing) {
    connectDefault();
    testing::internal::CaptureStdout();
    EXPECT_EQ(SqlEscape("a\xC3"), "");
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "SQL escape conversion error! string was 'a\xC3'\n");
}
