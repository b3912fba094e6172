// SPDX-License-Identifier: MIT
#include "DefaultsTool.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <cstdlib>
#include <optional>
#include <sstream>

#include <gtest/gtest.h>

#include "CRegistryImpl.h"
#include "CSettingsDomain.h"

namespace {

const char* const kSuite = "Software\\Pellix\\Nimb";
const char* const kConfig = "Software\\Pellix\\Nimb\\Config";

// Each test gets its own XDG_CONFIG_HOME, and runs commands in-process.
class DefaultsToolTest : public ::testing::Test {
protected:
    struct Result {
        int status = -1;
        std::string out;
        std::string err;
    };

    void SetUp() override {
        ASSERT_TRUE(home_.isValid());
        if (const char* old = std::getenv("XDG_CONFIG_HOME")) saved_ = std::string(old);
        setenv("XDG_CONFIG_HOME", home_.path().toUtf8().constData(), 1);
    }
    void TearDown() override {
        if (saved_) {
            setenv("XDG_CONFIG_HOME", saved_->c_str(), 1);
        } else {
            unsetenv("XDG_CONFIG_HOME");
        }
    }

    static Result run(const std::vector<std::string>& args) {
        std::ostringstream out;
        std::ostringstream err;
        Result result;
        result.status = DefaultsTool(out, err).run(args);
        result.out = out.str();
        result.err = err.str();
        return result;
    }

    // Runs a command that must fail with `status` and exactly `message` on stderr.
    static void expectFailure(const std::vector<std::string>& args, int status,
                              const std::string& message) {
        const Result result = run(args);
        EXPECT_EQ(result.status, status) << args[0];
        EXPECT_EQ(result.out, "");
        const std::string hint =
            status == DefaultsTool::kUsage ? "Try 'nimb-defaults --help'.\n" : "";
        EXPECT_EQ(result.err, "nimb-defaults: " + message + "\n" + hint);
    }

    QString storeFile(const char* domain) const {
        return QDir(home_.path()).filePath(QStringLiteral("pellix/%1.json").arg(domain));
    }

    CRegistryImpl registry_;

private:
    QTemporaryDir home_;
    std::optional<std::string> saved_;
};

TEST_F(DefaultsToolTest, WritesWhatTheSuiteReads) {
    EXPECT_EQ(run({"write", kSuite, "LogLevel", "-int", "4"}).status, 0);
    EXPECT_EQ(run({"write", kSuite, "LogsDir", "-string", "/srv/logs"}).status, 0);
    EXPECT_EQ(run({"write", kConfig, "kibDirectory.host", "-string", "127.0.0.1"}).status, 0);
    EXPECT_EQ(run({"write", "com.pellix.nimb", "Verbose", "-bool", "true"}).status, 0);
    int level = 0;
    CStdStr logs;
    CStdStr host;
    bool verbose = false;
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    EXPECT_TRUE(registry_.ReadSettingImpl("SOFTWARE\\PELLIX\\NIMB", "LogsDir", logs));
    EXPECT_TRUE(registry_.ReadSettingImpl(kConfig, "kibDirectory.host", host));
    EXPECT_TRUE(registry_.ReadSettingImpl("com.pellix.nimb", "Verbose", verbose));
    EXPECT_EQ(level, 4);
    EXPECT_EQ(logs, "/srv/logs");
    EXPECT_EQ(host, "127.0.0.1");
    EXPECT_TRUE(verbose);
    EXPECT_TRUE(QFile::exists(storeFile("com.pellix.nimb.config")));
}

TEST_F(DefaultsToolTest, ReadsOneValueOrTheWholeDomain) {
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogLevel", -3));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogsDir", CStdStr("/tmp/a \"b\"")));
    ASSERT_TRUE(CSettingsDomain("com.pellix.nimb").setValue("Verbose", QVariant(false)));
    EXPECT_EQ(run({"read", kSuite, "LogLevel"}).out, "-3\n");
    EXPECT_EQ(run({"read", "com.pellix.nimb", "LogsDir"}).out, "/tmp/a \"b\"\n");
    EXPECT_EQ(run({"read", kSuite, "Verbose"}).out, "false\n");
    const Result all = run({"read", "Software\\pellix\\NIMB"});
    EXPECT_EQ(all.status, 0);
    EXPECT_EQ(all.out,
              "LogLevel (int) = -3\n"
              "LogsDir (string) = \"/tmp/a \\\"b\\\"\"\n"
              "Verbose (bool) = false\n");
    EXPECT_EQ(all.err, "");
}

TEST_F(DefaultsToolTest, DeletesOneValueOrTheWholeDomain) {
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogLevel", 1));
    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogsDir", CStdStr("/tmp")));
    EXPECT_EQ(run({"delete", kSuite, "LogLevel"}).status, 0);
    int level = 42;
    EXPECT_FALSE(registry_.ReadSettingImpl(kSuite, "LogLevel", level));
    CStdStr logs;
    EXPECT_TRUE(registry_.ReadSettingImpl(kSuite, "LogsDir", logs));
    EXPECT_EQ(run({"delete", "com.pellix.nimb"}).status, 0);
    EXPECT_FALSE(registry_.ReadSettingImpl(kSuite, "LogsDir", logs));
}

TEST_F(DefaultsToolTest, MapsOnlyKeyPathsToDomains) {
    EXPECT_EQ(DefaultsTool::domainFor(kConfig), "com.pellix.nimb.config");
    EXPECT_EQ(DefaultsTool::domainFor("Software\\Other"), "software.other");
    EXPECT_EQ(DefaultsTool::domainFor("com.pellix.nimb"), "com.pellix.nimb");
    EXPECT_EQ(DefaultsTool::domainFor("Mixed.Case"), "Mixed.Case");
}

TEST_F(DefaultsToolTest, RejectsBadCommandLines) {
    constexpr int kUsage = DefaultsTool::kUsage;
    expectFailure({}, kUsage, "missing command");
    expectFailure({"list"}, kUsage, "unknown command \"list\"");
    expectFailure({"read"}, kUsage, "read: missing domain or key");
    expectFailure({"read", kSuite, "a", "b"}, kUsage, "read: too many arguments");
    expectFailure({"delete"}, kUsage, "delete: missing domain or key");
    expectFailure({"delete", kSuite, "a", "b"}, kUsage, "delete: too many arguments");
    expectFailure({"write"}, kUsage, "write: missing domain or key");
    expectFailure({"write", kSuite}, kUsage, "write: missing value name");
    expectFailure({"write", kSuite, ""}, kUsage, "write: the value name is empty");
    expectFailure({"write", kSuite, "LogLevel"}, kUsage,
                  "write: missing value type (-int, -string or -bool)");
    expectFailure({"write", kSuite, "LogLevel", "-int"}, kUsage, "write: missing value after -int");
    expectFailure({"write", kSuite, "LogLevel", "-int", "4", "5"}, kUsage,
                  "write: too many arguments");
    expectFailure({"write", kSuite, "LogLevel", "-float", "4"}, kUsage,
                  "write: unknown value type \"-float\" (-int, -string or -bool)");
    for (const char* bad : {"", "4x", "0x10", "+4", " 4", "2147483648", "-2147483649"}) {
        expectFailure({"write", kSuite, "LogLevel", "-int", bad}, kUsage,
                      std::string("write: invalid integer \"") + bad +
                          "\" (a whole number from -2147483648 to 2147483647 is expected)");
    }
    expectFailure({"write", kSuite, "Flag", "-bool", "yes"}, kUsage,
                  "write: invalid boolean \"yes\" (true or false is expected)");
    // Nothing was written by any of them.
    EXPECT_FALSE(QFile::exists(storeFile("com.pellix.nimb")));
    EXPECT_EQ(run({"write", kSuite, "Low", "-int", "-2147483648"}).status, 0);
}

TEST_F(DefaultsToolTest, ReportsMissingValuesAndUnusableStores) {
    constexpr int kFailure = DefaultsTool::kFailure;
    expectFailure({"read", kSuite}, kFailure, "domain com.pellix.nimb has no settings");
    expectFailure({"delete", kSuite}, kFailure, "domain com.pellix.nimb has no settings");
    expectFailure({"read", kSuite, "LogLevel"}, kFailure,
                  "no value \"LogLevel\" in domain com.pellix.nimb");
    expectFailure({"delete", kSuite, "LogLevel"}, kFailure,
                  "no value \"LogLevel\" in domain com.pellix.nimb");
    expectFailure({"write", "a/b", "x", "-int", "1"}, kFailure,
                  "\"a/b\" is not a usable domain name");

    ASSERT_TRUE(registry_.WriteSettingImpl(kSuite, "LogLevel", 1));
    {
        QFile file(storeFile("com.pellix.nimb"));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write("not json");
    }
    const std::string invalid = CStdStr::fromQString(storeFile("com.pellix.nimb")) +
                                " is not a valid settings file (a JSON object is expected)";
    expectFailure({"read", kSuite, "LogLevel"}, kFailure, invalid);
    expectFailure({"write", kSuite, "LogLevel", "-int", "2"}, kFailure, invalid);
    expectFailure({"delete", kSuite}, kFailure, invalid);

    // The store folder cannot be created: a file stands in its place.
    ASSERT_TRUE(QFile::remove(storeFile("com.pellix.nimb")));
    const QString folder = QFileInfo(storeFile("x")).path();
    ASSERT_TRUE(QDir(folder).removeRecursively());
    QFile blocker(folder);
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    expectFailure({"write", kSuite, "LogLevel", "-int", "2"}, kFailure,
                  "cannot write " + CStdStr::fromQString(storeFile("com.pellix.nimb")));
}

TEST_F(DefaultsToolTest, ProgramPrintsHelpAndExitsWithTheStatus) {
    QProcess tool;
    tool.start(QStringLiteral(NIMB_DEFAULTS), {"--help"});
    ASSERT_TRUE(tool.waitForFinished(30000));
    EXPECT_EQ(tool.exitCode(), 0);
    EXPECT_TRUE(tool.readAllStandardOutput().startsWith("Usage: nimb-defaults read"));

    tool.start(QStringLiteral(NIMB_DEFAULTS),
               {"write", kConfig, "kibDirectory.host", "-string", "10.1.2.3"});
    ASSERT_TRUE(tool.waitForFinished(30000));
    EXPECT_EQ(tool.exitCode(), 0);
    tool.start(QStringLiteral(NIMB_DEFAULTS), {"read", kConfig, "kibDirectory.host"});
    ASSERT_TRUE(tool.waitForFinished(30000));
    EXPECT_EQ(tool.exitCode(), 0);
    EXPECT_EQ(tool.readAllStandardOutput(), "10.1.2.3\n");

    tool.start(QStringLiteral(NIMB_DEFAULTS), {"read", kConfig, "missing"});
    ASSERT_TRUE(tool.waitForFinished(30000));
    EXPECT_EQ(tool.exitCode(), 1);
    EXPECT_EQ(tool.readAllStandardError(),
              "nimb-defaults: no value \"missing\" in domain com.pellix.nimb.config\n");

    tool.start(QStringLiteral(NIMB_DEFAULTS), {});
    ASSERT_TRUE(tool.waitForFinished(30000));
    EXPECT_EQ(tool.exitCode(), 2);
}

}  // namespace
