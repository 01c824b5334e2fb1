#include "relayserver/settings/setting_keys.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <string>

namespace {

constexpr const char* kNone = "–";

std::string sCode(const std::string& sText) {
    return "`" + sText + "`";
}

std::string sNameOf(const SettingKey& key) {
    const std::string sKey(key.sKey);
    return key.kind == SettingKind::kList ? sCode(sKey + "1") + ", " + sCode(sKey + "2") + ", ..."
                                          : sCode(sKey);
}

std::string sKindOf(const SettingKey& key) {
    switch (key.kind) {
        case SettingKind::kNumber:
            return "number";
        case SettingKind::kYesOrNo:
            return "yes-no";
        default:
            return "text";
    }
}

std::string sRangeOf(const SettingKey& key) {
    if (key.kind == SettingKind::kNumber) {
        return std::to_string(key.nLowest) + " to " + std::to_string(key.nHighest);
    }
    return *key.sTextRange != '\0' ? key.sTextRange : kNone;
}

std::string sDefaultOf(const SettingKey& key) {
    const std::string sMeans(key.sDefaultMeans);
    if (key.bRequired) {
        return "required";
    }
    if (*key.sRequiredWith != '\0') {
        return "required with " + sCode(key.sRequiredWith);
    }
    if (key.kind == SettingKind::kNumber) {
        return std::to_string(key.nDefault) + (sMeans.empty() ? "" : ": " + sMeans);
    }
    if (key.kind == SettingKind::kYesOrNo) {
        return key.nDefault != 0 ? "yes" : "no";
    }
    return sMeans.empty() ? "none" : sMeans;
}

/// The table of the configuration page.
std::string sTable() {
    std::string sAll =
        "| section | key | kind | range | default | meaning |\n|---|---|---|---|---|---|\n";
    for (const SettingKey* pKey : kSettingKeys) {
        sAll += "| " + sCode(pKey->sSection) + " | " + sNameOf(*pKey) + " | " + sKindOf(*pKey) +
                " | " + sRangeOf(*pKey) + " | " + sDefaultOf(*pKey) + " | " + pKey->sMeaning +
                " |\n";
    }
    return sAll;
}

/// What stands in the page between the two marks.
std::string sTableInPage() {
    const auto root = std::filesystem::path(__FILE__).parent_path() / "../../../..";
    std::ifstream page(root / "docs" / "configuration.md");
    std::stringstream text;
    text << page.rdbuf();
    const std::string sPage = text.str();
    const std::string sBegin = "<!-- keys -->\n";
    const std::size_t nFrom = sPage.find(sBegin);
    const std::size_t nTo = sPage.find("<!-- /keys -->");
    return nFrom == std::string::npos || nTo == std::string::npos
               ? ""
               : sPage.substr(nFrom + sBegin.size(), nTo - nFrom - sBegin.size());
}

TEST(SettingKeys, AreUnique) {
    std::set<std::string> names;
    for (const SettingKey* pKey : kSettingKeys) {
        EXPECT_TRUE(names.insert(std::string(pKey->sSection) + "/" + pKey->sKey).second)
            << pKey->sSection << "/" << pKey->sKey;
    }
}

TEST(SettingKeys, DefaultsOfNumbersLieInTheirRange) {
    for (const SettingKey* pKey : kSettingKeys) {
        const bool bHasDefault = pKey->kind == SettingKind::kNumber && *pKey->sRequiredWith == '\0';
        EXPECT_TRUE(!bHasDefault ||
                    (pKey->nDefault >= pKey->nLowest && pKey->nDefault <= pKey->nHighest))
            << pKey->sKey;
    }
}

TEST(SettingKeys, RequiredCompanionsAreKeysOfTheSameSection) {
    for (const SettingKey* pKey : kSettingKeys) {
        bool bFound = *pKey->sRequiredWith == '\0';
        for (const SettingKey* pOther : kSettingKeys) {
            bFound = bFound || (std::string(pOther->sSection) == pKey->sSection &&
                                std::string(pOther->sKey) == pKey->sRequiredWith);
        }
        EXPECT_TRUE(bFound) << pKey->sKey;
    }
}

TEST(SettingKeys, AreWhatTheConfigurationPageShows) {
    EXPECT_EQ(sTable(), sTableInPage()) << "the page should show:\n" << sTable();
}

}  // namespace
