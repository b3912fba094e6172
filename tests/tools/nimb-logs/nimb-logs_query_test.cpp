// SPDX-License-Identifier: MIT
// nimb-logs's history listing, queries and reindexing, run as a child program on a logs
// folder that the real writer filled, with its index and a history of compressed
// generations; and the times it reads.
#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "DeviceLogHistory.h"
#include "DeviceLogIndex.h"
#include "DeviceLogWriter.h"
#include "LogsTime.h"
#include "NimbTestSupport.h"

namespace {

using namespace nimbtest;

constexpr long long kNoon = 1795521600;  // 2026-11-24 12:00:00 UTC
constexpr const char* kCamera = "cam-kitchen.log";
constexpr const char* kGarage = "garage-door.log";
constexpr int kLines = 60;
const char* const kLevels[] = {"ERROR", "WARN", "INFO", "DEBUG"};

// One line written: where, when (its stamp and its receive time) and how severe.
struct Written {
    std::string file;
    long long time = 0;
    int level = 0;  // index into kLevels
    std::string text;
};

class NimbLogsQueryTest : public ConfigHomeTest {
protected:
    void SetUp() override {
        ConfigHomeTest::SetUp();
        logs_ = dir_ / "logs";
        // Every line gets its own second, so the expected order is the order of time.
        for (int i = 0; i < kLines; ++i) {
            Written line;
            line.file = i % 3 == 0 ? kGarage : kCamera;
            line.time = kNoon + i * 10;
            line.level = i % 4;
            line.text = stamp(line.time) + " app[7]: " + kLevels[line.level] + ": event " +
                        std::to_string(i) + " " + std::string(20, 'x');
            written_.push_back(line);
        }
        writeLogs();
    }

    static std::string stamp(long long time) {
        return LogsTime::local(time).replace(4, 1, "/").replace(7, 1, "/");
    }

    // Writes the lines through a writer with index and history (small files, so the
    // logs rotate several times), then lets the history compress.
    void writeLogs() {
        DeviceLogHistory::Options historyOptions;
        historyOptions.logsDir = logs_;
        historyOptions.maxAgeDays = 0;
        historyOptions.minFreePercent = 0;
        const auto history = std::make_shared<DeviceLogHistory>(historyOptions);
        std::string error;
        std::shared_ptr<DeviceLogIndex> index = DeviceLogIndex::openForWriting(logs_, error);
        ASSERT_TRUE(index) << error;
        {
            DeviceLogWriter::Options options;
            options.logsDir = logs_;
            options.rotateSize = 500;
            options.index = index;
            options.history = history;
            DeviceLogWriter writer(options);
            // One handle per log for the whole run, as the collector keeps them.
            std::map<std::string, std::shared_ptr<CBBLogSink>> sinks;
            const std::pair<const char*, const char*> devices[] = {{kCamera, "Kitchen Camera"},
                                                                   {kGarage, "Garage"}};
            for (const auto& [file, name] : devices) {
                DeviceLogIndex::Identity identity;
                identity.deviceId = std::string("id-") + name;
                identity.displayName = name;
                identity.caller = "sat1";
                writer.setIdentity(file, identity);
                LogTextInfo info;
                info.header = true;
                info.receivedMs = (kNoon - 5) * 1000;
                sinks[file] = writer.open(file);
                ASSERT_TRUE(sinks[file]->append(header(name), nullptr, info));
            }
            for (const Written& line : written_) {
                LogTextInfo info;
                info.receivedMs = line.time * 1000;
                std::string text = line.text + "\n";
                // A line shaped like a header inside the device's text stays text.
                if (line.time == kNoon + 100) text += kForged + std::string("\n");
                ASSERT_TRUE(sinks[line.file]->append(text, nullptr, info));
                writer.drain();  // one write per text, so that the files rotate as they fill
            }
        }
        index->flush();
        history->drain();
        generations_ = history->list();
    }

    static std::string header(const std::string& name) {
        return "\n===== " + name +
               " - sat1 === 2026/11/24 11:59:55 <-> 2026/11/24 11:59:55 =====\n";
    }

    // A header text as its line, without the newlines around it.
    static std::string trimmed(const std::string& text) { return text.substr(1, text.size() - 2); }

    // The lines of `written_` that `keep` accepts, as "<file>\t<line>".
    template <typename Keep>
    std::string expected(Keep keep) const {
        std::string result;
        for (const Written& line : written_) {
            if (keep(line)) result += line.file + "\t" + line.text + "\n";
        }
        return result;
    }

    ChildResult run(std::vector<std::string> args) {
        args.insert(args.begin(), {NIMB_LOGS_BIN, "--dir", logs_});
        return runProgram(args, dir_);
    }

    static constexpr const char* kForged =
        "===== Forged - x === 1999/01/01 00:00:00 <-> 1999/01/01 00:00:00 =====";
    ScopedTimeZone zone_{"UTC"};
    std::string logs_;
    std::vector<Written> written_;
    std::vector<DeviceLogHistory::Entry> generations_;
};

TEST_F(NimbLogsQueryTest, PrintsTheLinesOfARangeLevelAndDeviceSortedByTimeAcrossGenerations) {
    // The fixture is what it should be: rotated into compressed history generations.
    ASSERT_GE(generations_.size(), 4u);
    for (const auto& generation : generations_) ASSERT_NE(generation.compressedBytes, 0u);

    // Everything, from the first generation in the history to the current files; the
    // forged header is a line of the text (at its receive time) and the real headers
    // are left out.
    const ChildResult all = run({"--since", "2026-11-24 11:00"});
    ASSERT_EQ(all.exitCode(), 0) << all.errors;
    EXPECT_EQ(all.errors, "");
    std::string withForged = expected([](const Written& w) { return w.time <= kNoon + 100; }) +
                             kCamera + "\t" + kForged + "\n" +
                             expected([](const Written& w) { return w.time > kNoon + 100; });
    EXPECT_EQ(all.output, withForged);

    struct Case {
        std::vector<std::string> args;
        std::string output;
    };
    const Case cases[] = {
        // Times in the other forms, half-open range, "warning" means error and warning.
        {{"--since", "2026-11-24T13:02:00+01:00", "--until", "2026/11/24 12:05:00", "--level",
          "warning"},
         expected([](const Written& w) {
             return w.time >= kNoon + 120 && w.time < kNoon + 300 && w.level <= 1;
         })},
        // A device by its display name, the earliest lines only.
        {{"--device", "Garage", "--level", "err", "--limit", "3"}, expected([](const Written& w) {
             return w.file == kGarage && w.level == 0 && w.time <= kNoon + 250;
         })},
        {{"--file", kCamera, "--until", "2026-11-24T12:01:00Z", "--level", "debug"},
         expected([](const Written& w) { return w.file == kCamera && w.time < kNoon + 60; })},
        {{"--since", "now"}, ""},
    };
    for (const Case& c : cases) {
        const ChildResult result = run(c.args);
        EXPECT_EQ(result.exitCode(), 0) << c.args[1] << result.errors;
        EXPECT_EQ(result.output, c.output) << c.args[1];
    }

    // The announces with --headers; the full format names time, level and device.
    const ChildResult headers = run({"--headers", "--file", kCamera, "--limit", "2"});
    EXPECT_EQ(headers.output, std::string(kCamera) + "\t" + trimmed(header("Kitchen Camera")) +
                                  "\n" + kCamera + "\t" + written_[1].text + "\n");
    const ChildResult full = run({"--format", "full", "--level", "error", "--limit", "1"});
    EXPECT_EQ(full.output, "2026-11-24 12:00:00\terror\tGarage\t" + std::string(kGarage) + "\t" +
                               written_[0].text + "\n");
}

TEST_F(NimbLogsQueryTest, ListsTheHistoryPerGenerationAndByDevice) {
    const ChildResult result = run({"--history", "--tsv", "--no-header"});
    ASSERT_EQ(result.exitCode(), 0) << result.errors;
    std::string listed;
    for (const auto& generation : generations_) {
        listed += generation.fileName + "\t" + LogsTime::local(generation.movedAt) + "\t" +
                  std::to_string(generation.rawBytes) + "\t" +
                  std::to_string(generation.compressedBytes) + "\t" +
                  generation.path.substr(logs_.size() + 1) + "\n";
    }
    EXPECT_EQ(result.output, listed);

    // By display name (the index knows which logs announced it) and by file prefix.
    for (const char* device : {"Kitchen Camera", "cam-"}) {
        const ChildResult camera = run({"--history", "--device", device, "--no-header", "--tsv"});
        ASSERT_EQ(camera.exitCode(), 0) << camera.errors;
        const auto lines = linesOf(camera.output);
        EXPECT_EQ(lines.size(), static_cast<std::size_t>(std::count_if(
                                    generations_.begin(), generations_.end(),
                                    [](const auto& g) { return g.fileName == kCamera; })));
        for (const auto& line : lines) EXPECT_EQ(line.rfind(kCamera, 0), 0u) << line;
    }
}

// Without a database there is no answer but a hint; --reindex builds it from the logs
// and their .back files, which then answer as before, and refuses while the index is open.
TEST_F(NimbLogsQueryTest, ReindexGivesTheSameAnswersForTheFilesAndRefusesWhileTheIndexIsOpen) {
    const std::vector<std::string> query = {"--since", "2026-11-24 11:00", "--level", "debug"};
    const ChildResult before = run(query);
    ASSERT_EQ(before.exitCode(), 0) << before.errors;

    {
        std::string error;
        const auto open = DeviceLogIndex::openForWriting(logs_, error);
        ASSERT_TRUE(open) << error;
        const ChildResult refused = run({"--reindex"});
        EXPECT_EQ(refused.exitCode(), 1);
        EXPECT_NE(refused.errors.find("stop it first"), std::string::npos) << refused.errors;
    }

    const std::string database = DeviceLogIndex::pathFor(logs_);
    for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(database + suffix);
    const ChildResult missing = run(query);
    EXPECT_EQ(missing.exitCode(), 1);
    EXPECT_EQ(missing.output, "");
    EXPECT_NE(missing.errors.find("no index at " + database +
                                  ": the collector has not written any log yet, or run "
                                  "nimb-logs --reindex"),
              std::string::npos)
        << missing.errors;

    const ChildResult reindex = run({"--reindex"});
    ASSERT_EQ(reindex.exitCode(), 0) << reindex.errors;
    EXPECT_EQ(reindex.output.rfind("rebuilt the index " + database + ": 2 logs, ", 0), 0u)
        << reindex.output;
    // The same lines, those only the history holds included.
    const ChildResult after = run(query);
    ASSERT_EQ(after.exitCode(), 0) << after.errors;
    EXPECT_EQ(after.output, before.output);
}

TEST(LogsTime, ReadsLocalAndZonedDatesRelativeSpansAndNow) {
    // Central European time: one hour east of UTC in November, two in July.
    ScopedTimeZone zone("CET-1CEST,M3.5.0,M10.5.0/3");
    const long long now = kNoon;
    struct Case {
        const char* text;
        long long time;  // -1: refused
    };
    const Case cases[] = {
        {"now", kNoon},
        {"-15m", kNoon - 900},
        {"-2h", kNoon - 7200},
        {"-7d", kNoon - 7 * 86400},
        {"-30s", kNoon - 30},
        {"2026-11-24 13:00", kNoon},
        {"2026-11-24 13:00:05", kNoon + 5},
        {"2026/11/24 13:00:05", kNoon + 5},
        {"2026-11-24", kNoon - 13 * 3600},
        {"2026-07-01 02:00", 1782864000},  // summer time
        {"2026-11-24T12:00:05Z", kNoon + 5},
        {"2026-11-24T12:00:05.250Z", kNoon + 5},
        {"2026-11-24T14:30:00+02:30", kNoon},
        {"2026-11-24T07:00:00-0500", kNoon},
        {"2026-02-30 10:00", -1},
        {"2026-11-24 24:00", -1},
        {"2026-11-24T12:00:00+25:00", -1},
        {"2026-11-24 12:00 UTC", -1},
        {"-15", -1},
        {"-15w", -1},
        {"yesterday", -1},
        {"", -1},
    };
    for (const Case& c : cases) {
        long long time = -1;
        EXPECT_EQ(LogsTime::parse(c.text, now, time), c.time != -1) << c.text;
        EXPECT_EQ(time, c.time) << c.text;
    }
}

}  // namespace
