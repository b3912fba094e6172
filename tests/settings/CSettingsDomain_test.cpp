// SPDX-License-Identifier: MIT
#include "CSettingsDomain.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include "SettingsTestSupport.h"

namespace {

class CSettingsDomainTest : public TempConfigHome {
protected:
    static QJsonObject storedObject(const char* domain) {
        return QJsonDocument::fromJson(readStoreFile(domain)).object();
    }
};

TEST_F(CSettingsDomainTest, StoresOneFlatTypedJsonObject) {
    CSettingsDomain domain("com.pellix.nimb.config");
    ASSERT_TRUE(domain.setValue("kibDirectory.host", QVariant(QStringLiteral("127.0.0.1"))));
    ASSERT_TRUE(domain.setValue("Level", QVariant(3)));
    ASSERT_TRUE(domain.setValue("Flag", QVariant(false)));
    ASSERT_TRUE(domain.setValue("a/b", QVariant(1)));
    const QJsonObject stored = storedObject("com.pellix.nimb.config");
    EXPECT_EQ(stored.keys(), QStringList({"Flag", "Level", "a/b", "kibDirectory.host"}));
    EXPECT_TRUE(stored.value("kibDirectory.host").isString());
    EXPECT_TRUE(stored.value("Level").isDouble());
    EXPECT_TRUE(stored.value("Flag").isBool());

    CSettingsDomain reopened("com.pellix.nimb.config");
    ASSERT_TRUE(reopened.synchronize());
    EXPECT_EQ(reopened.names(), QStringList({"Flag", "Level", "a/b", "kibDirectory.host"}));
    EXPECT_EQ(reopened.value("Level")->typeId(), QMetaType::Int);
    EXPECT_EQ(reopened.value("Flag")->typeId(), QMetaType::Bool);
    EXPECT_EQ(reopened.value("kibDirectory.host")->typeId(), QMetaType::QString);
    EXPECT_FALSE(reopened.value("kibDirectory").has_value());
}

TEST_F(CSettingsDomainTest, ValuesOfOtherTypesSurviveAWrite) {
    writeStoreFile("com.pellix.nimb",
                   R"({"List": [1, "two"], "Big": 1099511627776, "Half": 0.5,
                       "Nested": {"a": null}, "Nothing": null})");
    CSettingsDomain domain("com.pellix.nimb");
    ASSERT_TRUE(domain.synchronize());
    EXPECT_EQ(domain.value("Big")->typeId(), QMetaType::LongLong);
    EXPECT_EQ(domain.value("Half")->typeId(), QMetaType::Double);
    ASSERT_TRUE(domain.setValue("LogLevel", QVariant(2)));
    const QJsonObject expected = QJsonDocument::fromJson(R"({"List": [1, "two"],
        "Big": 1099511627776, "Half": 0.5, "Nested": {"a": null}, "Nothing": null,
        "LogLevel": 2})")
                                     .object();
    EXPECT_EQ(storedObject("com.pellix.nimb"), expected);
}

TEST_F(CSettingsDomainTest, RemoveAndClear) {
    CSettingsDomain domain("com.pellix.nimb");
    ASSERT_TRUE(domain.setValue("One", QVariant(1)));
    ASSERT_TRUE(domain.setValue("Two", QVariant(2)));
    ASSERT_TRUE(domain.remove("One"));
    EXPECT_EQ(CSettingsDomain("com.pellix.nimb").names(), QStringList({"Two"}));
    ASSERT_TRUE(domain.clear());
    EXPECT_TRUE(CSettingsDomain("com.pellix.nimb").names().isEmpty());
    EXPECT_FALSE(domain.setValue("", QVariant(1)));
}

TEST_F(CSettingsDomainTest, FailuresExplainThemselves) {
    CSettingsDomain unusable("a/b");
    EXPECT_FALSE(unusable.synchronize());
    EXPECT_EQ(unusable.failureReason(), "\"a/b\" is not a usable domain name");
    for (const char* name : {"", ".", ".."}) {
        EXPECT_FALSE(CSettingsDomain(name).synchronize()) << name;
    }

    writeStoreFile("broken", "[1, 2]");
    CSettingsDomain broken("broken");
    EXPECT_FALSE(broken.synchronize());
    EXPECT_EQ(broken.failureReason(),
              broken.filePath() + " is not a valid settings file (a JSON object is expected)");

    ASSERT_TRUE(QDir(homePath()).mkpath("pellix/directory.json"));
    CSettingsDomain unreadable("directory");
    EXPECT_FALSE(unreadable.synchronize());
    EXPECT_EQ(unreadable.failureReason(), "cannot read " + unreadable.filePath());

    CSettingsDomain fine("fine");
    EXPECT_TRUE(fine.synchronize());
    EXPECT_EQ(fine.failureReason(), "");
}

TEST_F(CSettingsDomainTest, StoreFolderFollowsTheConfigHome) {
    const CStdStr home = CStdStr::fromQString(homePath());
    EXPECT_EQ(CSettingsDomain::storeDirectory(), home + "/pellix");
    EXPECT_EQ(CSettingsDomain("com.pellix.nimb").filePath(), home + "/pellix/com.pellix.nimb.json");

    // Without a usable XDG_CONFIG_HOME the folder is under the home folder.
    const char* savedHome = std::getenv("HOME");
    const std::string oldHome = savedHome ? savedHome : "";
    setenv("HOME", (home + "/user/").c_str(), 1);
    for (const char* configHome : {"", "relative/config"}) {
        setenv("XDG_CONFIG_HOME", configHome, 1);
        EXPECT_EQ(CSettingsDomain::storeDirectory(), home + "/user/.config/pellix") << configHome;
    }
    unsetenv("XDG_CONFIG_HOME");
    EXPECT_EQ(CSettingsDomain::storeDirectory(), home + "/user/.config/pellix");
    if (savedHome) {
        setenv("HOME", oldHome.c_str(), 1);
    } else {
        unsetenv("HOME");
    }
}

}  // namespace
