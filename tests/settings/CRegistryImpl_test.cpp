// SPDX-License-Identifier: MIT
#include "CRegistryImpl.h"

#include <QDir>

#include <gtest/gtest.h>

#include "SettingsTestSupport.h"

namespace {

const char* const kSuite = "Software\\Pellix\\Nimb";
const char* const kConfig = "Software\\Pellix\\Nimb\\Config";

class CRegistryImplTest : public TempConfigHome {
protected:
    CRegistryImpl registry_;
};

TEST(CRegistryImplCreateKey, MapsKeyPathsToDomains) {
    CRegistryImpl registry;
    EXPECT_EQ(registry.createKey(kConfig), "com.pellix.nimb.config");
    EXPECT_EQ(registry.createKey(kSuite), "com.pellix.nimb");
    EXPECT_EQ(registry.createKey("SOFTWARE\\PELLIX\\NIMB"), "com.pellix.nimb");
    EXPECT_EQ(registry.createKey("Software\\Other\\Tool"), "software.other.tool");
    EXPECT_EQ(registry.createKey("Software\\Pellix\\Nimb\\Software\\Pellix\\Nimb"),
              "com.pellix.nimb.com.pellix.nimb");
    EXPECT_EQ(registry.createKey("com.pellix.nimb"), "com.pellix.nimb");
    EXPECT_EQ(registry.createKey(""), "");
}

TEST_F(CRegistryImplTest, WrittenValuesReadBackWithTheirTypes) {
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogLevel", 4));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Negative", -2147483647 - 1));
    ASSERT_TRUE(registry_.WriteSettingImpl(kConfig, "kibDirectory.host", CStdStr("127.0.0.1")));
    int level = 0;
    int negative = 0;
    CStdStr host;
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "Negative", negative));
    EXPECT_TRUE(registry_.ReadSettingImpl(kConfig, "kibDirectory.host", host));
    EXPECT_EQ(level, 4);
    EXPECT_EQ(negative, -2147483647 - 1);
    EXPECT_EQ(host, "127.0.0.1");
    EXPECT_TRUE(QFile::exists(QDir(homePath()).filePath("pellix/com.pellix.nimb.config.json")));
}

TEST_F(CRegistryImplTest, KeyPathsInAnyCaseReachOneDomain) {
    ASSERT_TRUE(registry_.WriteSettingImpl("SOFTWARE\\PELLIX\\NIMB", "LogLevel", 3));
    int level = 0;
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_EQ(level, 3);
}

TEST_F(CRegistryImplTest, MissingValuesLeaveTheOutputUntouched) {
    int level = 42;
    CStdStr host("default");
    bool flag = true;
    EXPECT_FALSE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_FALSE(registry_.ReadSettingImpl(kConfig, "kibDirectory.host", host));
    EXPECT_FALSE(registry_.ReadSettingImpl("com.pellix.nimb", "Flag", flag));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Other", 1));
    EXPECT_FALSE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_EQ(level, 42);
    EXPECT_EQ(host, "default");
    EXPECT_TRUE(flag);
}

TEST_F(CRegistryImplTest, StringsKeepEveryByte) {
    const CStdStr text("Grüße \\ \"quoted\" / \t tab ☃");
    const CStdStr empty;
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Text", text));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Empty", empty));
    CStdStr read("x");
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "Text", read));
    EXPECT_EQ(read, text);
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "Empty", read));
    EXPECT_EQ(read, "");
}

TEST_F(CRegistryImplTest, OverwritingReplacesTheValue) {
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogLevel", 1));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogLevel", 2));
    int level = 0;
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_EQ(level, 2);
}

}  // namespace
