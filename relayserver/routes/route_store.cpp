#include "relayserver/routes/route_store.h"

#include <libpq-fe.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "base/string_format.h"
#include "connserver/logging.h"
#include "orvex/tesselsql.h"
#include "relayserver/clients/recently_lost.h"

using Tessel_Routing::RouteEntry;
using Tessel_Routing::RoutingCache;

namespace {

/// Owns the result of one statement.
class SqlResult {
  public:
    explicit SqlResult(const std::string& sStatement)
        : _bOK(ExecuteSQL(sStatement.c_str(), &_pResult, nullptr)) {}
    ~SqlResult() { PQclear(_pResult); }
    SqlResult(const SqlResult&) = delete;
    SqlResult& operator=(const SqlResult&) = delete;

    /// Rows of a query; 0 when it failed.
    [[nodiscard]] int nRows() const { return _bOK ? PQntuples(_pResult) : 0; }

    /// The first column of a row as a number.
    [[nodiscard]] unsigned nFirstColumn(int nRow) const {
        constexpr int kBase = 10;
        return static_cast<unsigned>(std::strtoul(PQgetvalue(_pResult, nRow, 0), nullptr, kBase));
    }

  private:
    PGresult* _pResult = nullptr;
    bool _bOK;
};

/// The statement that deletes (from, to, class); an id of 0 stands for every client.
std::string sDeleteStatement(unsigned nFromID, unsigned nToID, int nMsgClass) {
    if (nToID == 0) {
        return string_format("DELETE FROM iopatch WHERE clientfrom='%u' AND msgclass='%d'", nFromID,
                             nMsgClass);
    }
    if (nFromID == 0) {
        return string_format("DELETE FROM iopatch WHERE clientto='%u' AND msgclass='%d'", nToID,
                             nMsgClass);
    }
    return string_format(
        "DELETE FROM iopatch WHERE clientto='%u' AND clientfrom='%u' AND msgclass='%d'", nToID,
        nFromID, nMsgClass);
}

std::vector<unsigned> readDestinations(unsigned nSource, int nMsgClass) {
    const SqlResult rows(
        string_format("SELECT clientto FROM iopatch WHERE clientfrom='%u' AND msgclass='%d'",
                      nSource, nMsgClass));
    std::vector<unsigned> destinations;
    destinations.reserve(static_cast<size_t>(rows.nRows()));
    for (int nRow = 0; nRow < rows.nRows(); ++nRow) {
        destinations.push_back(rows.nFirstColumn(nRow));
    }
    return destinations;
}

void logMiss(unsigned nSource, int nMsgClass, const char* sTypeText, size_t nDestinations) {
    writeToLog(true, "cache miss for source %u type %s, now sending to %zu clients\n", nSource,
               sTypeText != nullptr ? sTypeText : std::to_string(nMsgClass).c_str(), nDestinations);
}

}  // namespace

void DBCleanup() {
    { const SqlResult deleted("DELETE FROM iopatch"); }
    RoutingCache::Instance()->Clear();
}

void insertRoute(unsigned nFromID, unsigned nToID, int nMsgClass) {
    const SqlResult inserted(string_format(
        "INSERT INTO iopatch (clientto, clientfrom, msgclass) VALUES ('%u','%u','%d')", nToID,
        nFromID, nMsgClass));
}

void deleteRoute(unsigned nFromID, unsigned nToID, int nMsgClass) {
    { const SqlResult deleted(sDeleteStatement(nFromID, nToID, nMsgClass)); }
    const SqlResult left(string_format(
        "SELECT * FROM iopatch WHERE clientto='%u' OR clientfrom='%u'", nToID, nToID));
    if (left.nRows() == 0) {
        ConfirmFromRecentlyLost(nToID);
    }
}

void forgetRoute(unsigned nSource, int nMsgClass) {
    RoutingCache::Instance()->Remove(RouteEntry(nSource, nMsgClass, {}));
}

std::shared_ptr<const RouteEntry> findRoute(unsigned nSource, int nMsgClass,
                                            const char* sTypeText) {
    RoutingCache& rCache = *RoutingCache::Instance();
    if (std::shared_ptr<const RouteEntry> pRoute = rCache.find(nSource, nMsgClass)) {
        return pRoute;
    }
    RouteEntry route(nSource, nMsgClass, readDestinations(nSource, nMsgClass));
    const size_t nDestinations = route.clientsTo().size();
    rCache.Add(std::move(route));
    logMiss(nSource, nMsgClass, sTypeText, nDestinations);
    return rCache.find(nSource, nMsgClass);
}

void resetRouteStoreForTest() {
    RoutingCache::Instance()->Clear();
}
