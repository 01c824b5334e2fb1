/// Stands in for the database: keeps the statements and gives the rows that a test has prepared.
#pragma once

#include <string>
#include <vector>

/// Every statement executed since the last reset.
std::vector<std::string>& executedStatements();

/// What a statement gives from now on; without an entry a statement succeeds without rows.
void giveRows(const std::string& sStatement, std::vector<std::string> firstColumn);
void letFail(const std::string& sStatement);

/// Whether the connection is healthy, and how often a reset was asked for.
void setDatabaseHealthy(bool bHealthy);
int nDatabaseResets();

void resetDatabaseStub();
