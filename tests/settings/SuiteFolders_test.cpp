// SPDX-License-Identifier: MIT
#include "SuiteFolders.h"

#include <gtest/gtest.h>

#include "CRegistry.h"
#include "SettingsTestSupport.h"

namespace {

const char* const kSuite = "Software\\Pellix\\Nimb";

using CSuiteFoldersTest = TempConfigHome;

TEST_F(CSuiteFoldersTest, DefaultsWithoutSettings) {
    EXPECT_EQ(CSuiteFolders::logsDirectory(), "/var/log/pellix");
    EXPECT_EQ(CSuiteFolders::dataDirectory(), "/var/lib/pellix");
}

TEST_F(CSuiteFoldersTest, SettingsOverrideTheDefaults) {
    auto registry = CRegistry::getInstance();
    ASSERT_TRUE(registry->WriteSettingImpl(kSuite, "LogsDir", CStdStr("/tmp/nimb logs/")));
    ASSERT_TRUE(registry->WriteSettingImpl(kSuite, "DataDir", CStdStr("/tmp/nimb-data")));
    EXPECT_EQ(CSuiteFolders::logsDirectory(), "/tmp/nimb logs");
    EXPECT_EQ(CSuiteFolders::dataDirectory(), "/tmp/nimb-data");
}

TEST_F(CSuiteFoldersTest, EmptySettingsFallBackToTheDefaults) {
    auto registry = CRegistry::getInstance();
    ASSERT_TRUE(registry->WriteSettingImpl(kSuite, "LogsDir", CStdStr()));
    ASSERT_TRUE(registry->WriteSettingImpl(kSuite, "DataDir", CStdStr()));
    EXPECT_EQ(CSuiteFolders::logsDirectory(), "/var/log/pellix");
    EXPECT_EQ(CSuiteFolders::dataDirectory(), "/var/lib/pellix");
}

}  // namespace
