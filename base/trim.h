/// Cutting unwanted characters off both ends of a text.
#pragma once

#include <string>

/// `source` without the leading and trailing characters that are in `delims`. A text made only of
/// such characters becomes empty; characters inside the text stay. Any thread.
std::string trim(const std::string& source, const std::string& delims);
