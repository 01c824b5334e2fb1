#include "tests/stubs/tesselsql_stub.h"

#include <libpq-fe.h>

#include <map>
#include <set>

#include "orvex/tesselsql.h"

namespace {

std::map<std::string, std::vector<std::string>> preparedRows;
std::set<std::string> failingStatements;
bool bDatabaseHealthy = true;
int nResets = 0;

PGresult* makeResult(const std::vector<std::string>& firstColumn) {
    PGresult* const pResult = PQmakeEmptyPGresult(nullptr, PGRES_TUPLES_OK);
    char achName[] = "clientto";
    PGresAttDesc column{};
    column.name = achName;
    PQsetResultAttrs(pResult, 1, &column);
    int nRow = 0;
    for (std::string sValue : firstColumn) {
        PQsetvalue(pResult, nRow++, 0, sValue.data(), static_cast<int>(sValue.size()));
    }
    return pResult;
}

}  // namespace

std::vector<std::string>& executedStatements() {
    static std::vector<std::string> statements;
    return statements;
}

void giveRows(const std::string& sStatement, std::vector<std::string> firstColumn) {
    preparedRows[sStatement] = std::move(firstColumn);
}

void letFail(const std::string& sStatement) {
    failingStatements.insert(sStatement);
}

void setDatabaseHealthy(bool bHealthy) {
    bDatabaseHealthy = bHealthy;
}

int nDatabaseResets() {
    return nResets;
}

void resetDatabaseStub() {
    executedStatements().clear();
    preparedRows.clear();
    failingStatements.clear();
    bDatabaseHealthy = true;
    nResets = 0;
}

bool ExecuteSQL(const char* cpCommand, PGresult** res_ptr, PGconn* /*pgc*/) {
    executedStatements().emplace_back(cpCommand);
    if (failingStatements.contains(cpCommand)) {
        *res_ptr = PQmakeEmptyPGresult(nullptr, PGRES_FATAL_ERROR);
        return false;
    }
    const auto itRows = preparedRows.find(cpCommand);
    *res_ptr =
        makeResult(itRows == preparedRows.end() ? std::vector<std::string>{} : itRows->second);
    return true;
}

bool CheckSQLConnection(PGconn* /*pgc*/) {
    return bDatabaseHealthy;
}

bool ResetSQL(PGconn* /*pgc*/) {
    ++nResets;
    return bDatabaseHealthy;
}
