// SPDX-License-Identifier: MIT
#include "SuiteFolders.h"

#include <gtest/gtest.h>

#include "CRegistry.h"
#include "SettingsTestSupport.h"

namespace {

using CSuiteFoldersTest = TempConfigHome;

TEST_F(CSuiteFoldersTest, SettingsOverrideTheDefaultsUnlessEmpty) {
    EXPECT_EQ(CSuiteFolders::logsDirectory(), "/var/log/pellix");
    EXPECT_EQ(CSuiteFolders::dataDirectory(), "/var/lib/pellix");
    auto registry = CRegistry::getInstance();
    ASSERT_TRUE(registry->WriteSettingImpl("Software\\Pellix\\Nimb", "LogsDir", CStdStr("/l/x/")));
    ASSERT_TRUE(registry->WriteSettingImpl("Software\\Pellix\\Nimb", "DataDir", CStdStr("/d")));
    EXPECT_EQ(CSuiteFolders::logsDirectory(), "/l/x");
    EXPECT_EQ(CSuiteFolders::dataDirectory(), "/d");
    ASSERT_TRUE(registry->WriteSettingImpl("Software\\Pellix\\Nimb", "LogsDir", CStdStr()));
    EXPECT_EQ(CSuiteFolders::logsDirectory(), "/var/log/pellix");
}

}  // namespace
