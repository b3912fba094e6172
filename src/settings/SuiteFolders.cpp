// SPDX-License-Identifier: MIT
#include "SuiteFolders.h"

#include "CRegistry.h"

namespace {

constexpr const char* kSuiteKey = "Software\\Pellix\\Nimb";

CStdStr configuredFolder(const char* name, const char* fallback) {
    CStdStr folder;
    if (!CRegistry::getInstance()->ReadSettingImpl(kSuiteKey, name, folder) || folder.empty()) {
        return fallback;
    }
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    return folder;
}

}  // namespace

CStdStr CSuiteFolders::logsDirectory() {
    return configuredFolder("LogsDir", kDefaultLogsDirectory);
}

CStdStr CSuiteFolders::dataDirectory() {
    return configuredFolder("DataDir", kDefaultDataDirectory);
}
