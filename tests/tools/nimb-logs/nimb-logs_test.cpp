// SPDX-License-Identifier: MIT
// nimb-logs run as a child program on folders of collector-style log files.
#include <string>

#include <fcntl.h>
#include <sys/stat.h>

#include "CFileTools.h"
#include "NimbTestSupport.h"

namespace {

using namespace nimbtest;

class NimbLogsTest : public ConfigHomeTest {
protected:
    void SetUp() override {
        ConfigHomeTest::SetUp();
        logs_ = dir_ / "logs";
        ASSERT_TRUE(fs::create_directory(logs_));
    }

    // A log file of `size` bytes last modified `age` seconds before a fixed time.
    void addLog(const std::string& name, size_t size, int age) {
        const std::string path = logs_ + "/" + name;
        writeFile(path, std::string(size, 'x'));
        const timespec times[2] = {{kNow - age, 0}, {kNow - age, 0}};
        ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, 0), 0);
    }

    void addCollectorLogs() {
        addLog("puck001122334455-main.log", 400, 10);
        addLog("puck001122334455-main.log.back", 524288, 500);
        addLog("remote0A0B0C0D0E0F-player.log", 12, 30);
        addLog("NimbRemoteLogger.log", 90, 20);
        addLog(".hidden", 1, 0);
    }

    ChildResult run(std::vector<std::string> args) {
        args.insert(args.begin(), NIMB_LOGS_BIN);
        return runProgram(args, dir_);
    }

    static constexpr time_t kNow = 1700000000;
    std::string logs_;
};

TEST_F(NimbLogsTest, ListsTheFolderInAlignedColumnsOrTabSeparated) {
    addCollectorLogs();
    const ChildResult result =
        run({"--dir", logs_, "--sort", "size:desc", "--fields", "title,size,mediaType"});
    ASSERT_EQ(result.exitCode(), 0) << result.errors;
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.output,
              "title                           size    mediaType\n"
              "puck001122334455-main.log.back  524288  file\n"
              "puck001122334455-main.log       400     text.file\n"
              "NimbRemoteLogger.log            90      text.file\n"
              "remote0A0B0C0D0E0F-player.log   12      text.file\n");

    // Tab separated, without header, with names escaped.
    addLog("odd\tname.log", 5, 40);
    const ChildResult tsv = run({"--dir=" + logs_, "--sort=lastModified:desc", "--tsv",
                                 "--no-header", "--fields=title,size"});
    ASSERT_EQ(tsv.exitCode(), 0) << tsv.errors;
    EXPECT_EQ(tsv.output,
              "puck001122334455-main.log\t400\n"
              "NimbRemoteLogger.log\t90\n"
              "remote0A0B0C0D0E0F-player.log\t12\n"
              "odd\\tname.log\t5\n"
              "puck001122334455-main.log.back\t524288\n");
}

TEST_F(NimbLogsTest, DefaultsToTheLogsFolderSetting) {
    addLog("puck001122334455-main.log", 3, 0);
    setSuiteSetting("LogsDir", logs_);
    ASSERT_EQ(CFileTools::GetLogsDirectory(), logs_);
    const ChildResult result = run({"--tsv", "--fields", "title,size,lastModified"});
    ASSERT_EQ(result.exitCode(), 0) << result.errors;
    const CFileTools entry(logs_ + "/puck001122334455-main.log");
    EXPECT_EQ(result.output, "title\tsize\tlastModified\npuck001122334455-main.log\t3\t" +
                                 entry.getFieldValue("lastModified") + "\n");
}

TEST_F(NimbLogsTest, UsageErrorsExitWithTwoUnreadableFoldersOrIndexWithOneAndHelpWithZero) {
    struct Case {
        std::vector<std::string> args;
        int exitCode;
        std::string reason;
    };
    const std::string absent = dir_ / "absent";
    for (const Case& c : {Case{{"--sort", "Size:desc"}, 2, "unknown sort key \"Size:desc\""},
                          Case{{"--fields", "title,bogus"}, 2, "unknown field \"bogus\""},
                          Case{{"--verbose"}, 2, "unknown argument \"--verbose\""},
                          Case{{"--dir"}, 2, "--dir needs a value"},
                          Case{{"--dir", absent}, 1, "cannot read folder " + absent},
                          Case{{"--since", "yesterday"}, 2, "cannot read the time \"yesterday\""},
                          Case{{"--since", "now", "--until", "-1h"}, 2, "--since must be before"},
                          Case{{"--level", "loud"}, 2, "unknown level \"loud\""},
                          Case{{"--limit", "0"}, 2, "--limit takes a count"},
                          Case{{"--format", "json"}, 2, "unknown format \"json\""},
                          Case{{"--history", "--level", "error"}, 2, "one at a time"},
                          Case{{"--device", "x", "--sort", "size:asc"}, 2, "folder listing only"},
                          Case{{"--reindex", "--tsv"}, 2, "listings only"},
                          Case{{"--level", "error"}, 1, "no index at " + logs_}}) {
        std::vector<std::string> args = c.args;
        args.insert(args.begin(), {"--dir", logs_});
        const ChildResult result = run(args);
        EXPECT_EQ(result.exitCode(), c.exitCode) << c.reason;
        EXPECT_EQ(result.output, "") << c.reason;
        EXPECT_NE(result.errors.find(c.reason), std::string::npos) << result.errors;
    }

    // Help wins over a bad argument and lists every key and field.
    const ChildResult result = run({"--sort", "bogus", "--help"});
    ASSERT_EQ(result.exitCode(), 0) << result.errors;
    for (const char* key : CFileTools::sortKeyNames()) {
        EXPECT_NE(result.output.find(std::string("  ") + key + "\n"), std::string::npos) << key;
    }
    for (const char* field : CFileTools::fieldNames()) {
        EXPECT_NE(result.output.find(std::string("  ") + field + "\n"), std::string::npos) << field;
    }
    for (const char* option :
         {"--history", "--since T", "--until T", "--level L", "--device NAME", "--file FILE",
          "--limit N", "--headers", "--format F", "--reindex"}) {
        EXPECT_NE(result.output.find(std::string("  ") + option + " "), std::string::npos)
            << option;
    }
}

}  // namespace
