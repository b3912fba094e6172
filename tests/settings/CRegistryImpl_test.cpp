// SPDX-License-Identifier: MIT
#include "CRegistryImpl.h"

#include <thread>

#include <QProcess>
#include <QStringList>

#include <gtest/gtest.h>

#include "SettingsTestSupport.h"

namespace {

const char* const kSuite = "Software\\Pellix\\Nimb";
const char* const kConfig = "Software\\Pellix\\Nimb\\Config";

class CRegistryImplTest : public TempConfigHome {
protected:
    // Starts the helper process with `arguments`; it must be waited for.
    static void startHelper(QProcess& helper, const QStringList& arguments) {
        helper.start(QStringLiteral(SETTINGS_HELPER), arguments);
    }
    // Runs the helper to its end (bounded); returns its exit status and output.
    static std::pair<int, QByteArray> runHelper(const QStringList& arguments) {
        QProcess helper;
        startHelper(helper, arguments);
        if (!helper.waitForFinished(60000)) return {-1, {}};
        return {helper.exitCode(), helper.readAllStandardOutput()};
    }
    // ReadAllSettingsImpl on a copy of `values`; what it printed goes to `printed`.
    std::map<CStdStr, CStdStr> readAll(const char* key, std::map<CStdStr, CStdStr> values,
                                       std::string& printed) {
        testing::internal::CaptureStdout();
        registry_.ReadAllSettingsImpl(key, values);
        printed = testing::internal::GetCapturedStdout();
        return values;
    }

    CRegistryImpl registry_;
};

TEST(CRegistryImplCreateKey, OneSharedInstanceMapsKeyPathsToDomains) {
    boost::shared_ptr<CRegistry> shared = CRegistry::getInstance();
    EXPECT_NE(dynamic_cast<CRegistryImpl*>(shared.get()), nullptr);
    EXPECT_EQ(shared.get(), CRegistry::getInstance().get());
    CRegistryImpl registry;
    EXPECT_EQ(registry.createKey(kConfig), "com.pellix.nimb.config");
    EXPECT_EQ(registry.createKey("SOFTWARE\\PELLIX\\NIMB"), "com.pellix.nimb");
    EXPECT_EQ(registry.createKey("Software\\Other\\Tool"), "software.other.tool");
    EXPECT_EQ(registry.createKey("Software\\Pellix\\Nimb\\Software\\Pellix\\Nimb"),
              "com.pellix.nimb.com.pellix.nimb");
}

TEST_F(CRegistryImplTest, ValuesReadBackWithTheirTypesInAnotherProcess) {
    const CStdStr text("Grüße \\ \"quoted\"\t☃");
    ASSERT_TRUE(registry_.WriteSettingImpl("SOFTWARE\\PELLIX\\NIMB", "LogLevel", 3));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogLevel", -2147483647 - 1));
    ASSERT_TRUE(registry_.WriteSettingImpl(kConfig, "kibDirectory.host", text));
    ASSERT_TRUE(CSettingsDomain("com.pellix.nimb").setValue("Flag", QVariant(true)));
    int level = 0;
    CStdStr host;
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_TRUE(registry_.ReadSettingImpl(kConfig, "kibDirectory.host", host));
    EXPECT_EQ(level, -2147483647 - 1);
    EXPECT_EQ(host, text);
    // A fresh process takes the types from the file, not from anything remembered.
    EXPECT_EQ(runHelper({"read-int", "software\\pellix\\nimb", "LogLevel"}),
              std::make_pair(0, QByteArray("-2147483648")));
    EXPECT_EQ(runHelper({"read-string", kConfig, "kibDirectory.host"}),
              std::make_pair(0, QByteArray(text.c_str())));
    EXPECT_EQ(runHelper({"read-bool", "com.pellix.nimb", "Flag"}),
              std::make_pair(0, QByteArray("true")));
    EXPECT_EQ(runHelper({"read-int", kSuite, "Missing"}).first, 1);
}

TEST_F(CRegistryImplTest, MissingValuesLeaveTheOutputAndBooleansTakeTheKeyAsDomain) {
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Other", 1));
    int level = 42;
    CStdStr host("default");
    bool flag = true;
    EXPECT_FALSE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_FALSE(registry_.ReadSettingImpl(kConfig, "kibDirectory.host", host));
    EXPECT_FALSE(registry_.ReadSettingImpl("com.pellix.nimb", "Flag", flag));
    EXPECT_EQ(level, 42);
    EXPECT_EQ(host, "default");
    EXPECT_TRUE(flag);

    // A boolean is read from the domain named by the key as given.
    ASSERT_TRUE(CSettingsDomain(kSuite).setValue("Flag", QVariant(false)));
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "Flag", flag));
    EXPECT_FALSE(flag);
    EXPECT_FALSE(registry_.ReadSettingImpl(kSuite, "Other", flag));
    EXPECT_TRUE(QFile::exists(QDir(homePath()).filePath("pellix/Software\\Pellix\\Nimb.json")));
}

TEST_F(CRegistryImplTest, ConcurrentProcessesAndThreadsLoseNothing) {
    constexpr int kWrites = 50;
    QProcess first;
    QProcess second;
    startHelper(first, {"write-many", kSuite, "a", QString::number(kWrites)});
    startHelper(second, {"write-many", kSuite, "b", QString::number(kWrites)});
    // Meanwhile a thread of this process, sharing QSettings' memory of the file.
    int failures = 0;
    std::thread([&failures] {
        CRegistryImpl registry;
        for (int i = 0; i < kWrites; ++i) {
            failures += !registry.WriteSettingImpl(kSuite, "t" + std::to_string(i), i);
        }
    }).join();
    ASSERT_TRUE(first.waitForFinished(60000) && second.waitForFinished(60000));
    EXPECT_EQ(first.exitCode() + second.exitCode() + failures, 0);
    std::string printed;
    const auto all = readAll(kSuite, {}, printed);
    ASSERT_EQ(all.size(), size_t{3 * kWrites});
    for (const char* prefix : {"a", "b", "t"}) {
        for (int i = 0; i < kWrites; ++i) {
            EXPECT_EQ(all.at(prefix + std::to_string(i)), CStdStr(1, char(i)));
        }
    }
}

TEST_F(CRegistryImplTest, ReadAllTurnsNumbersIntoOneCharacterAndSkipsOtherTypes) {
    std::string printed;
    const std::map<CStdStr, CStdStr> before{{"Text", "old"}, {"Kept", "kept"}};
    EXPECT_EQ(readAll(kSuite, before, printed), before);
    EXPECT_EQ(printed, "no keys for com.pellix.nimb\n");

    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Ten", 10));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Letter", 65 + 256));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Text", CStdStr("x")));
    ASSERT_TRUE(CSettingsDomain("com.pellix.nimb").setValue("Flag", QVariant(true)));
    ASSERT_TRUE(CSettingsDomain("com.pellix.nimb").setValue("Wide", QVariant(1LL << 40)));
    const std::map<CStdStr, CStdStr> expected{
        {"Kept", "kept"}, {"Letter", "A"}, {"Ten", CStdStr(1, '\n')}, {"Text", "x"}};
    EXPECT_EQ(readAll("SOFTWARE\\Pellix\\NIMB", before, printed), expected);
    EXPECT_EQ(printed, "");
}

TEST_F(CRegistryImplTest, CorruptFileFailsEveryCallAndIsNeverOverwritten) {
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogLevel", 1));
    const QByteArray corrupt("{ \"LogLevel\": 3, broken");
    writeStoreFile("com.pellix.nimb", corrupt);
    // Repeated: only the first reader in a process hears of the fault from QSettings.
    for (int round = 0; round < 2; ++round) {
        int level = 42;
        EXPECT_FALSE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
        EXPECT_EQ(level, 42);
        EXPECT_FALSE(registry_.WriteSettingImpl(kSuite, "LogLevel", 2));
        std::string printed;
        EXPECT_TRUE(readAll(kSuite, {}, printed).empty());
        EXPECT_EQ(printed, "synchronization failed for com.pellix.nimb\n");
    }
    EXPECT_EQ(runHelper({"write-many", kSuite, "x", "1"}).first, 1);
    EXPECT_EQ(readStoreFile("com.pellix.nimb"), corrupt);

    // Once repaired the file is used again, and the refused writes do not come back.
    writeStoreFile("com.pellix.nimb", "{\"LogLevel\": 4}");
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "Other", CStdStr("x")));
    int level = 0;
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_EQ(level, 4);
}

TEST_F(CRegistryImplTest, UnusableDomainsAndUnwritableStoresFail) {
    int level = 42;
    std::string printed;
    EXPECT_FALSE(registry_.WriteSettingImpl("Software/..\\Evil", "LogLevel", 1));
    readAll("Software/Evil", {}, printed);
    EXPECT_EQ(printed, "synchronization failed for software/evil\n");
    blockStoreFolder();
    EXPECT_FALSE(registry_.WriteSettingImpl(kSuite, "LogsDir", CStdStr("/tmp")));
    EXPECT_FALSE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_EQ(level, 42);
}

}  // namespace
