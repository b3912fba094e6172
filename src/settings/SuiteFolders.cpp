// SPDX-License-Identifier: MIT
#include "SuiteFolders.h"

#include "CRegistry.h"
#include "NimbSettingsKeys.h"

namespace {

CStdStr configuredFolder(const char* name, const char* fallback) {
    CStdStr folder;
    if (!CRegistry::getInstance()->ReadSettingImpl(NimbSettings::kSuiteKey, name, folder) ||
        folder.empty()) {
        return fallback;
    }
    while (folder.size() > 1 && folder.back() == '/') folder.pop_back();
    return folder;
}

}  // namespace

CStdStr CSuiteFolders::logsDirectory() {
    return configuredFolder(NimbSettings::kLogsDir, kDefaultLogsDirectory);
}

CStdStr CSuiteFolders::dataDirectory() {
    return configuredFolder(NimbSettings::kDataDir, kDefaultDataDirectory);
}
