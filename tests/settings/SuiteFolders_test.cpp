// SPDX-License-Identifier: MIT
#include "SuiteFolders.h"

#include <gtest/gtest.h>

#include "SettingsTestSupport.h"

namespace {

using CSuiteFoldersTest = TempConfigHome;

TEST_F(CSuiteFoldersTest, SettingsOverrideTheDefaultsUnlessEmpty) {
    EXPECT_EQ(CSuiteFolders::logsDirectory(), "/var/log/pellix");
    EXPECT_EQ(CSuiteFolders::dataDirectory(), "/var/lib/pellix");
    setSuiteSetting("LogsDir", "/l/x/");
    setSuiteSetting("DataDir", "/d");
    EXPECT_EQ(CSuiteFolders::logsDirectory(), "/l/x");
    EXPECT_EQ(CSuiteFolders::dataDirectory(), "/d");
    setSuiteSetting("LogsDir", "");
    EXPECT_EQ(CSuiteFolders::logsDirectory(), "/var/log/pellix");
}

}  // namespace
