// SPDX-License-Identifier: MIT
#include "CRegistryImpl.h"

#include <QDir>
#include <QProcess>
#include <QStringList>

#include <gtest/gtest.h>

#include "SettingsTestSupport.h"

namespace {

const char* const kSuite = "Software\\Pellix\\Nimb";
const char* const kConfig = "Software\\Pellix\\Nimb\\Config";

class CRegistryImplTest : public TempConfigHome {
protected:
    // Runs the helper process to its end (bounded); returns its exit status, or -1.
    static int runHelper(const QStringList& arguments, QByteArray* output = nullptr) {
        QProcess helper;
        helper.start(QStringLiteral(SETTINGS_HELPER), arguments);
        if (!helper.waitForFinished(60000) || helper.exitStatus() != QProcess::NormalExit) {
            helper.kill();
            helper.waitForFinished(5000);
            return -1;
        }
        if (output != nullptr) *output = helper.readAllStandardOutput();
        return helper.exitCode();
    }

    std::map<CStdStr, CStdStr> readAll(const char* key, std::map<CStdStr, CStdStr> values,
                                       std::string* printed) {
        testing::internal::CaptureStdout();
        registry_.ReadAllSettingsImpl(key, values);
        *printed = testing::internal::GetCapturedStdout();
        return values;
    }

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

TEST_F(CRegistryImplTest, ValuesKeepTheirTypesAcrossProcesses) {
    // Written here, read in another process.
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogLevel", -7));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogsDir", CStdStr("/tmp/ä b")));
    QByteArray out;
    EXPECT_EQ(runHelper({"read-int", kSuite, "LogLevel"}, &out), 0);
    EXPECT_EQ(out, "-7");
    EXPECT_EQ(runHelper({"read-string", kSuite, "LogsDir"}, &out), 0);
    EXPECT_EQ(out, "/tmp/ä b");
    EXPECT_EQ(runHelper({"read-int", kSuite, "Missing"}), 1);

    // Written in another process, read here.
    ASSERT_EQ(runHelper({"write-int", kConfig, "Port", "4222"}), 0);
    ASSERT_EQ(runHelper({"write-string", kConfig, "kibDirectory.host", "10.0.0.1"}), 0);
    ASSERT_EQ(runHelper({"write-bool", "com.pellix.nimb", "Flag", "1"}), 0);
    int port = 0;
    CStdStr host;
    bool flag = false;
    EXPECT_TRUE(registry_.ReadSettingImpl(kConfig, "Port", port));
    EXPECT_TRUE(registry_.ReadSettingImpl(kConfig, "kibDirectory.host", host));
    EXPECT_TRUE(registry_.ReadSettingImpl("com.pellix.nimb", "Flag", flag));
    EXPECT_EQ(port, 4222);
    EXPECT_EQ(host, "10.0.0.1");
    EXPECT_TRUE(flag);
    // The types are the file's own, not guessed from text.
    const QByteArray file = readStoreFile("com.pellix.nimb.config");
    EXPECT_TRUE(file.contains("\"Port\": 4222")) << file.constData();
    EXPECT_TRUE(file.contains("\"kibDirectory.host\": \"10.0.0.1\"")) << file.constData();
    EXPECT_TRUE(readStoreFile("com.pellix.nimb").contains("\"Flag\": true"));
}

TEST_F(CRegistryImplTest, ConcurrentWritersLoseNothing) {
    constexpr int kWrites = 50;
    QProcess first;
    QProcess second;
    first.start(QStringLiteral(SETTINGS_HELPER),
                {"write-many", kSuite, "a", QString::number(kWrites)});
    second.start(QStringLiteral(SETTINGS_HELPER),
                 {"write-many", kSuite, "b", QString::number(kWrites)});
    ASSERT_TRUE(first.waitForFinished(120000));
    ASSERT_TRUE(second.waitForFinished(120000));
    ASSERT_EQ(first.exitCode(), 0);
    ASSERT_EQ(second.exitCode(), 0);
    for (const char* prefix : {"a", "b"}) {
        for (int i = 0; i < kWrites; ++i) {
            CStdStr name;
            name.Format("%s%d", prefix, i);
            int value = -1;
            EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, name, value)) << name;
            EXPECT_EQ(value, i) << name;
        }
    }
}

TEST_F(CRegistryImplTest, BooleanReadTakesTheKeyAsTheDomainName) {
    ASSERT_TRUE(CSettingsDomain(kSuite).setValue("Flag", QVariant(true)));
    ASSERT_TRUE(CSettingsDomain("com.pellix.nimb").setValue("Other", QVariant(false)));
    bool flag = false;
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "Flag", flag));
    EXPECT_TRUE(flag);
    EXPECT_TRUE(registry_.ReadSettingImpl("com.pellix.nimb", "Other", flag));
    EXPECT_FALSE(flag);
    // The key path is not mapped, so "Other" is not found through it.
    flag = true;
    EXPECT_FALSE(registry_.ReadSettingImpl(kSuite, "Other", flag));
    EXPECT_TRUE(flag);
    EXPECT_TRUE(QFile::exists(QDir(homePath()).filePath("pellix/Software\\Pellix\\Nimb.json")));
}

TEST_F(CRegistryImplTest, ReadAllTurnsNumbersIntoOneCharacterAndSkipsOtherTypes) {
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Ten", 10));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Letter", 65 + 256));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Text", CStdStr("x")));
    ASSERT_TRUE(CSettingsDomain("com.pellix.nimb").setValue("Flag", QVariant(true)));
    std::string printed;
    const auto values =
        readAll("SOFTWARE\\Pellix\\NIMB", {{"Text", "old"}, {"Kept", "kept"}}, &printed);
    EXPECT_EQ(printed, "");
    const std::map<CStdStr, CStdStr> expected{
        {"Kept", "kept"}, {"Letter", "A"}, {"Ten", CStdStr(1, '\n')}, {"Text", "x"}};
    EXPECT_EQ(values, expected);
}

TEST_F(CRegistryImplTest, ReadAllReportsAnEmptyDomainAndKeepsTheMap) {
    std::string printed;
    const std::map<CStdStr, CStdStr> before{{"Kept", "kept"}};
    EXPECT_EQ(readAll(kSuite, before, &printed), before);
    EXPECT_EQ(printed, "no keys for com.pellix.nimb\n");
    // A domain whose values are all removed has no keys either.
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Gone", 1));
    ASSERT_TRUE(CSettingsDomain("com.pellix.nimb").remove("Gone"));
    EXPECT_EQ(readAll(kSuite, before, &printed), before);
    EXPECT_EQ(printed, "no keys for com.pellix.nimb\n");
}

TEST_F(CRegistryImplTest, CorruptFileFailsEveryCallAndIsNeverOverwritten) {
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogLevel", 1));
    const QByteArray corrupt("{ \"LogLevel\": 3, broken");
    writeStoreFile("com.pellix.nimb", corrupt);
    // Repeated, so that what the process remembers of the file cannot hide the fault.
    for (int round = 0; round < 3; ++round) {
        int level = 42;
        EXPECT_FALSE(registry_.ReadSettingImpl(kSuite, "LogLevel", level)) << round;
        EXPECT_EQ(level, 42);
        EXPECT_FALSE(registry_.WriteSettingImpl(kSuite, "LogLevel", 2)) << round;
        EXPECT_FALSE(registry_.WriteSettingImpl(kSuite, "Other", CStdStr("x"))) << round;
        std::string printed;
        EXPECT_TRUE(readAll(kSuite, {}, &printed).empty());
        EXPECT_EQ(printed, "synchronization failed for com.pellix.nimb\n") << round;
        EXPECT_EQ(readStoreFile("com.pellix.nimb"), corrupt);
    }
    // Another process sees the same failure and leaves the file alone too.
    EXPECT_EQ(runHelper({"read-int", kSuite, "LogLevel"}), 1);
    EXPECT_EQ(runHelper({"write-int", kSuite, "LogLevel", "5"}), 1);
    EXPECT_EQ(readStoreFile("com.pellix.nimb"), corrupt);

    // Once repaired, the file is used again.
    writeStoreFile("com.pellix.nimb", "{\"LogLevel\": 4}");
    int level = 0;
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_TRUE(registry_.WriteSettingImpl(kSuite, "Other", CStdStr("x")));
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_EQ(level, 4);
}

TEST_F(CRegistryImplTest, UnusableDomainsAndUnwritableStoresFail) {
    // A key that would name a file outside the store folder.
    int level = 42;
    EXPECT_FALSE(registry_.WriteSettingImpl("Software/..\\Evil", "LogLevel", 1));
    EXPECT_FALSE(registry_.ReadSettingImpl("Software/Evil", "LogLevel", level));
    std::string printed;
    readAll("Software/Evil", {}, &printed);
    EXPECT_EQ(printed, "synchronization failed for software/evil\n");

    // The store folder cannot be created: a file is in its place.
    QFile blocker(QDir(homePath()).filePath("pellix"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    EXPECT_FALSE(registry_.WriteSettingImpl(kSuite, "LogLevel", 1));
    EXPECT_FALSE(registry_.WriteSettingImpl(kSuite, "LogsDir", CStdStr("/tmp")));
    EXPECT_FALSE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_EQ(level, 42);
}
