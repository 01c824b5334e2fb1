#include "base/ConfigFile.h"

#include <fstream>

#include "base/trim.h"

namespace {

/// Includes the carriage return for files with CR-LF line ends, where `getline` leaves it.
const char* const kBlanks = " \t\r\n";

std::string sMapKey(const std::string& section, const std::string& entry) {
    return section + '/' + entry;
}

std::string sSectionName(const std::string& sLine) {
    // Without a closing bracket the count is the rest of the line.
    const auto nClosing = sLine.find(']');
    return trim(sLine.substr(1, nClosing == std::string::npos ? nClosing : nClosing - 1), kBlanks);
}

}  // namespace

ConfigFile::ConfigFile(const std::string& path) {
    std::ifstream file(path);
    std::string sLine;
    std::string sSection;
    while (std::getline(file, sLine)) {
        parseLine(sLine, sSection);
    }
}

void ConfigFile::parseLine(const std::string& sLine, std::string& sSection) {
    if (sLine.empty() || sLine.front() == '#' || sLine.front() == ';') {
        return;
    }
    if (sLine.front() == '[') {
        sSection = sSectionName(sLine);
        return;
    }
    // Without "=" key and value are both the whole line: `flag` alone means flag = flag,
    // which is deliberate.
    const auto nEquals = sLine.find('=');
    const auto nValueStart = nEquals == std::string::npos ? 0 : nEquals + 1;
    const std::string sKey = trim(sLine.substr(0, nEquals), kBlanks);
    content_[sMapKey(sSection, sKey)] = trim(sLine.substr(nValueStart), kBlanks);
}

const Chameleon& ConfigFile::Value(const std::string& section, const std::string& entry) const {
    const auto found = content_.find(sMapKey(section, entry));
    if (found == content_.end()) {
        throw "does not exist";
    }
    return found->second;
}

const Chameleon& ConfigFile::Value(const std::string& section, const std::string& entry,
                                   double number) {
    return valueOrKeep(section, entry, number);
}

const Chameleon& ConfigFile::Value(const std::string& section, const std::string& entry,
                                   const std::string& text) {
    return valueOrKeep(section, entry, text);
}

const Chameleon& ConfigFile::valueOrKeep(const std::string& section, const std::string& entry,
                                         const Chameleon& defaultValue) {
    return content_.try_emplace(sMapKey(section, entry), defaultValue).first->second;
}

std::optional<Chameleon> ConfigFile::OptionalValue(const std::string& section,
                                                   const std::string& entry) const {
    const auto found = content_.find(sMapKey(section, entry));
    if (found == content_.end()) {
        return std::nullopt;
    }
    return found->second;
}
