/// Replaces the log: keeps the lines instead of writing them.
#pragma once

#include <string>
#include <vector>

/// Every line logged since the last clearing, without time stamps.
std::vector<std::string>& loggedLines();

/// How many of them are exactly `sLine`, and how many contain `sPart`.
size_t nLogged(const std::string& sLine);
size_t nLoggedContaining(const std::string& sPart);

/// For each logged line that contains one of `parts`, that part.
std::vector<std::string> partsInLogOrder(const std::vector<std::string>& parts);

/// How often `loggingTimeCheck` was called.
size_t nLoggingTimeChecks();

/// How many lines had been logged when it was last called.
size_t nLinesBeforeLoggingTimeCheck();
