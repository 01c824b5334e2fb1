/// Removal of unwanted characters from both ends of a text.
#pragma once

#include <string>

/// `source` without the leading and trailing characters that are in `delims`; empty if it consists
/// of nothing else. Any thread.
std::string trim(const std::string& source, const std::string& delims);
