// SPDX-License-Identifier: MIT
#include "DefaultsTool.h"

#include <regex>
#include <sstream>

#include <gtest/gtest.h>

#include "CRegistryImpl.h"
#include "NimbSettingsKeys.h"
#include "SettingsTestSupport.h"

namespace {

const char* const kSuite = "Software\\Pellix\\Nimb";
const char* const kConfig = "Software\\Pellix\\Nimb\\Config";

class DefaultsToolTest : public TempConfigHome {
protected:
    struct Result {
        int status = -1;
        std::string out;
        std::string err;
    };

    // Runs one command in this process.
    static Result run(const std::vector<std::string>& args) {
        std::ostringstream out;
        std::ostringstream err;
        const int status = DefaultsTool(out, err).run(args);
        return {status, out.str(), err.str()};
    }
    // Runs a command that must fail with `status` and exactly `message` on stderr.
    static void expectFailure(const std::vector<std::string>& args, int status,
                              const std::string& message) {
        const Result result = run(args);
        const char* hint = status == DefaultsTool::kUsage ? "Try 'nimb-defaults --help'.\n" : "";
        EXPECT_EQ(result.status, status) << message;
        EXPECT_EQ(result.out, "");
        EXPECT_EQ(result.err, "nimb-defaults: " + message + "\n" + hint);
    }

    CRegistryImpl registry_;
};

TEST_F(DefaultsToolTest, WritesReadsAndDeletesWhatTheSuiteReads) {
    EXPECT_EQ(run({"write", kSuite, "LogLevel", "-int", "-2147483648"}).status, 0);
    EXPECT_EQ(run({"write", kConfig, "kibDirectory.host", "-string", "a \"b\""}).status, 0);
    EXPECT_EQ(run({"write", "com.pellix.nimb", "Verbose", "-bool", "false"}).status, 0);
    int level = 0;
    CStdStr host;
    EXPECT_TRUE(registry_.ReadSettingImpl("SOFTWARE\\PELLIX\\NIMB", "LogLevel", level));
    EXPECT_TRUE(registry_.ReadSettingImpl(kConfig, "kibDirectory.host", host));
    EXPECT_EQ(level, -2147483647 - 1);
    EXPECT_EQ(host, "a \"b\"");
    EXPECT_EQ(run({"read", "com.pellix.nimb.config", "kibDirectory.host"}).out, "a \"b\"\n");
    EXPECT_EQ(run({"read", kSuite, "Verbose"}).out, "false\n");
    EXPECT_EQ(run({"read", "Software\\pellix\\NIMB"}).out,
              "LogLevel (int) = -2147483648\nVerbose (bool) = false\n");

    EXPECT_EQ(run({"delete", kSuite, "LogLevel"}).status, 0);
    EXPECT_EQ(CSettingsDomain("com.pellix.nimb").names(), QStringList({"Verbose"}));
    EXPECT_EQ(run({"delete", "com.pellix.nimb"}).status, 0);
    EXPECT_TRUE(CSettingsDomain("com.pellix.nimb").names().isEmpty());
}

TEST_F(DefaultsToolTest, RejectsBadCommandLinesWithoutWriting) {
    constexpr int kUsage = DefaultsTool::kUsage;
    expectFailure({}, kUsage, "missing command");
    expectFailure({"list"}, kUsage, "unknown command \"list\"");
    const std::string read = "read takes DOMAIN_OR_KEY [NAME]";
    const std::string remove = "delete takes DOMAIN_OR_KEY [NAME]";
    const std::string write =
        "write takes DOMAIN_OR_KEY NAME -int N | -string TEXT | -bool true|false";
    expectFailure({"read"}, kUsage, read);
    expectFailure({"read", kSuite, "a", "b"}, kUsage, read);
    expectFailure({"delete"}, kUsage, remove);
    expectFailure({"delete", kSuite, "a", "b"}, kUsage, remove);
    expectFailure({"write", kSuite, "N", "-int"}, kUsage, write);
    expectFailure({"write", kSuite, "N", "-int", "4", "5"}, kUsage, write);
    expectFailure({"write", kSuite, "", "-int", "4"}, kUsage, "write: the value name is empty");
    expectFailure({"write", kSuite, "N", "-float", "4"}, kUsage,
                  "write: unknown value type \"-float\" (-int, -string or -bool)");
    for (const char* bad : {"", "4x", "0x10", "+4", " 4", "2147483648", "-2147483649"}) {
        expectFailure({"write", kSuite, "N", "-int", bad}, kUsage,
                      std::string("write: invalid integer \"") + bad +
                          "\" (a whole number from -2147483648 to 2147483647 is expected)");
    }
    expectFailure({"write", kSuite, "N", "-bool", "yes"}, kUsage,
                  "write: invalid boolean \"yes\" (true or false is expected)");
    EXPECT_FALSE(QFile::exists(storeFile("com.pellix.nimb")));
}

TEST_F(DefaultsToolTest, ReportsMissingValuesAndUnusableStores) {
    constexpr int kFailure = DefaultsTool::kFailure;
    const std::string file = CStdStr::fromQString(storeFile("com.pellix.nimb"));
    expectFailure({"read", kSuite}, kFailure, "domain com.pellix.nimb has no settings");
    expectFailure({"delete", kSuite}, kFailure, "domain com.pellix.nimb has no settings");
    expectFailure({"read", kSuite, "N"}, kFailure, "no value \"N\" in domain com.pellix.nimb");
    expectFailure({"delete", kSuite, "N"}, kFailure, "no value \"N\" in domain com.pellix.nimb");
    expectFailure({"write", "a/b", "N", "-int", "1"}, kFailure,
                  "\"a/b\" is not a usable domain name");

    writeStoreFile("com.pellix.nimb", "[\"not an object\"]");
    const std::string invalid = file + " is not a valid settings file (a JSON object is expected)";
    expectFailure({"read", kSuite, "N"}, kFailure, invalid);
    expectFailure({"write", kSuite, "N", "-int", "2"}, kFailure, invalid);
    expectFailure({"delete", kSuite}, kFailure, invalid);

    ASSERT_TRUE(QFile::remove(storeFile("com.pellix.nimb")));
    ASSERT_TRUE(QDir().mkpath(storeFile("com.pellix.nimb")));
    expectFailure({"read", kSuite}, kFailure, "cannot read " + file);
    ASSERT_TRUE(QDir(homePath()).removeRecursively());
    ASSERT_TRUE(QDir().mkpath(homePath()));
    blockStoreFolder();
    expectFailure({"write", kSuite, "N", "-int", "2"}, kFailure, "cannot write " + file);
}

TEST_F(DefaultsToolTest, ProgramReportsThroughItsStreamsAndStatus) {
    const auto help = nimbtest::runProgram({NIMB_DEFAULTS, "--help"}, dir_);
    EXPECT_EQ(help.exitCode(), 0);
    EXPECT_EQ(help.output.rfind("Usage: nimb-defaults read", 0), 0u) << help.output;
    for (const NimbSettings::Key& key : NimbSettings::kKeys) {
        const std::regex row(std::string("\\n  ") +
                             std::regex_replace(key.keyPath, std::regex(R"(\\)"), R"(\\)") + " +" +
                             key.name + " +" + key.type + " ");
        EXPECT_TRUE(std::regex_search(help.output, row)) << key.name;
    }
    const auto missing = nimbtest::runProgram({NIMB_DEFAULTS, "read", kConfig, "N"}, dir_);
    EXPECT_EQ(missing.exitCode(), 1);
    EXPECT_EQ(missing.errors, "nimb-defaults: no value \"N\" in domain com.pellix.nimb.config\n");
}

}  // namespace
