// SPDX-License-Identifier: MIT
// The shared writer and another process's logger append to one file with a small size
// limit: rotation is coordinated through the file lock and the inode check, so every line
// is written whole, once, in order, and exactly one rotation happens when one is due.

#include <filesystem>
#include <map>
#include <regex>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "DeviceLogWriter.h"
#include "NimbTestSupport.h"

namespace {

namespace fs = std::filesystem;
using nimbtest::linesOf;
using nimbtest::readFile;

constexpr int kLines = 3000;

class DeviceLogProcessesTest : public nimbtest::ConfigHomeTest {
protected:
    void SetUp() override {
        ConfigHomeTest::SetUp();
        fs::create_directories(logs());
        setSuiteSetting("LogsDir", logs().string());
    }
    fs::path logs() const { return fs::path(dir_.path()) / "logs"; }

    // The child logs "A" lines with its own logger while this process writes "W" lines
    // of the same shape through the shared writer; returns the backup and current text.
    std::string runBoth(const std::string& name, long long limit) {
        const std::string start = (fs::path(dir_.path()) / ("start-" + name)).string();
        const std::string output = (fs::path(dir_.path()) / "helper.out").string();
        const pid_t child = nimbtest::spawnChild(
            {LOG_TEST_HELPER, name, std::to_string(limit), std::to_string(kLines), "A", start}, {},
            output);
        pids_["A"] = child;
        pids_["W"] = getpid();
        DeviceLogWriter::Options options;
        options.logsDir = logs().string();
        options.rotateSize = limit;
        {
            DeviceLogWriter writer(options);
            CBBLog log(name, true, limit, writer.open(name));
            log.setLogLevel(DEBUG);
            const std::string padding(60, 'x');
            nimbtest::writeFile(start, "go");
            for (int i = 0; i < kLines; ++i) log.AddLog(INFO, "W-%06d-%s", i, padding.c_str());
            writer.drain();
        }
        EXPECT_EQ(nimbtest::waitChild(child, output).exitCode(), 0);
        return readFile(logs() / (name + ".back")) + readFile(logs() / name);
    }

    // Every line whole and from the right process; each tag's indexes rise.
    std::map<std::string, std::vector<int>> collect(const std::string& text) {
        const std::regex line(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3} \[INFO \] (\d+) - )"
                              R"(([A-Z])-(\d{6})-x{60})");
        std::map<std::string, std::vector<int>> seen;
        for (const std::string& l : linesOf(text)) {
            std::smatch match;
            EXPECT_TRUE(std::regex_match(l, match, line)) << "torn or foreign line: " << l;
            if (!match.ready() || match.empty()) continue;
            const std::string tag = match[2];
            EXPECT_EQ(std::stoi(match[1]), pids_[tag]) << l;
            std::vector<int>& indexes = seen[tag];
            const int index = std::stoi(match[3]);
            EXPECT_TRUE(indexes.empty() || index > indexes.back()) << "duplicated: " << l;
            indexes.push_back(index);
        }
        return seen;
    }

    std::map<std::string, pid_t> pids_;
};

TEST_F(DeviceLogProcessesTest, OneSizeCrossingRotatesOnceAndLosesNoLine) {
    // Both together write about 660 KB: more than the limit, less than twice it, so
    // exactly one rotation is due; a second one would replace the backup and lose lines.
    constexpr long long kLimit = 400000;
    for (int round = 0; round < 3 && !HasFailure(); ++round) {
        const std::string name = "dev-once" + std::to_string(round);
        const auto seen = collect(runBoth(name, kLimit));
        for (const char* tag : {"A", "W"}) {
            const auto found = seen.find(tag);
            ASSERT_NE(found, seen.end()) << tag;
            EXPECT_EQ(found->second.size(), static_cast<std::size_t>(kLines))
                << tag << " in round " << round;
        }
        EXPECT_GE(static_cast<long long>(fs::file_size(logs() / (name + ".back"))), kLimit);
    }
}

}  // namespace
