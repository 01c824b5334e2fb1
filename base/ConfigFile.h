/// An INI-style configuration file, read once into a map from "section/key" to its value.
///
///   # comment, also with ;        only where this is the very first character of the line
///   [ Ports ]                     names are trimmed and case-sensitive
///   tcp = 9000                    stored as "Ports/tcp"; everything after the first = is the value
///   flag                          without = the whole line is both key and value
///
/// Keys before the first section belong to the empty section ("/name"). If a key is given twice,
/// the last value counts. Values are never unquoted or unescaped. Names and values may have any
/// length. Each object is for one thread at a time.
#pragma once

#include <map>
#include <optional>
#include <string>

#include "base/Chameleon.h"

class ConfigFile {
  public:
    /// Reads and parses the file at `path`. If it cannot be opened, the configuration is empty;
    /// nothing is reported, because every key may have a default.
    explicit ConfigFile(const std::string& path);

    /// The value of a mandatory key. A missing key throws the character pointer "does not exist"
    /// (`const char*`, not an exception class). The result is valid as long as the object.
    const Chameleon& Value(const std::string& section, const std::string& entry) const;

    /// The value of a key, or the default, which is then stored: later look-ups find it. The result
    /// is valid as long as the object.
    const Chameleon& Value(const std::string& section, const std::string& entry, double number);
    const Chameleon& Value(const std::string& section, const std::string& entry,
                           const std::string& text);

    /// The value of a key, empty when it is missing. Never throws.
    std::optional<Chameleon> OptionalValue(const std::string& section,
                                           const std::string& entry) const;

  private:
    void parseLine(const std::string& sLine, std::string& sSection);
    const Chameleon& valueOrKeep(const std::string& section, const std::string& entry,
                                 const Chameleon& defaultValue);

    std::map<std::string, Chameleon> content_;
};
