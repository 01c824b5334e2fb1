/// Replaces the database: keeps the statements and returns the rows that a test has prepared.
#pragma once

#include <string>
#include <vector>

/// Every statement executed since the last reset.
std::vector<std::string>& executedStatements();

/// Sets the rows that a statement returns from now on; otherwise it succeeds without rows.
void giveRows(const std::string& sStatement, std::vector<std::string> firstColumn);
/// Makes a statement fail from now on.
void letFail(const std::string& sStatement);

/// Whether the connection is healthy, and how often a reset was asked for.
void setDatabaseHealthy(bool bHealthy);
int nDatabaseResets();

/// Forgets all of this; the connection is healthy again.
void resetDatabaseStub();
