// SPDX-License-Identifier: MIT
// The settings table is the one list of settings: docs/settings.md lists exactly its
// keys with their types, and every setting another doc's table names is in it.

#include "NimbSettingsKeys.h"

#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace {

using KeyName = std::pair<std::string, std::string>;

std::string readDoc(const std::string& name) {
    std::ifstream in(std::string(NIMB_SOURCE_DIR) + "/docs/" + name);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// Rows of the doc's tables that start with a key path: (key path, every backticked
// value name of the second column) with the third column.
std::set<std::pair<KeyName, std::string>> documentedKeys(const std::string& doc) {
    std::set<std::pair<KeyName, std::string>> keys;
    const std::regex row(R"(^\| `(Software\\[^`]+)` \| ([^|]+) \| ([^|]*) \|)");
    const std::regex name("`([^`]+)`");
    std::istringstream lines(doc);
    std::string line;
    while (std::getline(lines, line)) {
        std::smatch match;
        if (!std::regex_search(line, match, row)) continue;
        const std::string names = match[2];
        std::string type = match[3];
        type.erase(type.find_last_not_of(' ') + 1);
        for (auto it = std::sregex_iterator(names.begin(), names.end(), name);
             it != std::sregex_iterator(); ++it) {
            keys.insert({{match[1], (*it)[1]}, type});
        }
    }
    return keys;
}

}  // namespace

TEST(NimbSettingsKeysTest, SettingsDocListsExactlyTheTable) {
    std::set<std::pair<KeyName, std::string>> table;
    for (const NimbSettings::Key& key : NimbSettings::kKeys) {
        EXPECT_TRUE(table.insert({{key.keyPath, key.name}, key.type}).second) << key.name;
    }
    EXPECT_EQ(documentedKeys(readDoc("settings.md")), table);
}

TEST(NimbSettingsKeysTest, OtherDocsNameOnlySettingsOfTheTable) {
    std::set<KeyName> table;
    for (const NimbSettings::Key& key : NimbSettings::kKeys) table.insert({key.keyPath, key.name});
    int rows = 0;
    for (const auto& entry : std::filesystem::directory_iterator(NIMB_SOURCE_DIR "/docs")) {
        if (entry.path().extension() != ".md") continue;
        for (const auto& [key, type] : documentedKeys(readDoc(entry.path().filename()))) {
            ++rows;
            EXPECT_EQ(table.count(key), 1u)
                << entry.path().filename() << " names " << key.first << " " << key.second;
        }
    }
    EXPECT_GT(rows, 30);
}
