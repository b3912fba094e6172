// SPDX-License-Identifier: MIT
#include "CSettingsDomain.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include "SettingsTestSupport.h"

namespace {

using CSettingsDomainTest = TempConfigHome;

TEST_F(CSettingsDomainTest, StoresOneFlatTypedObjectAndKeepsForeignValues) {
    writeStoreFile("com.pellix.nimb.config",
                   R"({"List": [1, "two"], "Big": 1099511627776, "Half": 0.5, "Nothing": null})");
    CSettingsDomain domain("com.pellix.nimb.config");
    ASSERT_TRUE(domain.setValue("kibDirectory.host", QVariant(QStringLiteral("127.0.0.1"))));
    ASSERT_TRUE(domain.setValue("Level", QVariant(3)));
    ASSERT_TRUE(domain.setValue("Flag", QVariant(false)));
    ASSERT_TRUE(domain.setValue("a/b", QVariant(1)));
    const QJsonObject expected = QJsonDocument::fromJson(R"({"List": [1, "two"],
        "Big": 1099511627776, "Half": 0.5, "Nothing": null, "kibDirectory.host": "127.0.0.1",
        "Level": 3, "Flag": false, "a/b": 1})")
                                     .object();
    EXPECT_EQ(QJsonDocument::fromJson(readStoreFile("com.pellix.nimb.config")).object(), expected);

    CSettingsDomain reopened("com.pellix.nimb.config");
    ASSERT_TRUE(reopened.synchronize());
    EXPECT_EQ(reopened.value("Level")->typeId(), QMetaType::Int);
    EXPECT_EQ(reopened.value("Big")->typeId(), QMetaType::LongLong);
    EXPECT_EQ(reopened.value("Flag")->typeId(), QMetaType::Bool);
    EXPECT_FALSE(reopened.value("kibDirectory").has_value());
    EXPECT_FALSE(reopened.value("a").has_value());
}

TEST_F(CSettingsDomainTest, StoreFolderFollowsTheConfigHome) {
    const CStdStr home = CStdStr::fromQString(homePath());
    EXPECT_EQ(CSettingsDomain("com.pellix.nimb").filePath(), home + "/pellix/com.pellix.nimb.json");
    for (const char* name : {"", ".", "..", "a/b"}) {
        EXPECT_FALSE(CSettingsDomain(name).synchronize()) << name;
    }
    // Without a usable XDG_CONFIG_HOME the folder is under the home folder.
    const std::string savedHome = std::getenv("HOME") ? std::getenv("HOME") : "/";
    setenv("HOME", (home + "/user/").c_str(), 1);
    for (const char* configHome : {"", "relative/config"}) {
        setenv("XDG_CONFIG_HOME", configHome, 1);
        EXPECT_EQ(CSettingsDomain::storeDirectory(), home + "/user/.config/pellix") << configHome;
    }
    setenv("HOME", savedHome.c_str(), 1);
}

}  // namespace
