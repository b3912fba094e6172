// SPDX-License-Identifier: MIT
// The index of what the writer wrote, in a real SQLite database: pieces that point at the
// exact bytes, headers and sources as the writer was told them, queries by time, severity
// and device; after a crash or without a database, the files are the truth: nothing
// indexed lies past a file's end and every byte is found again; the line-time rules.

#include "DeviceLogIndex.h"

#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "DeviceLogConverter.h"
#include "DeviceLogLines.h"
#include "DeviceLogSeverity.h"
#include "DeviceLogWriter.h"
#include "NimbTestSupport.h"

namespace {

namespace fs = std::filesystem;
using nimbtest::readFile;
using Level = DeviceLogSeverity::Level;

constexpr long long kNoon = 1795521600;  // 2026-11-24 12:00:00 UTC

class DeviceLogIndexTest : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(logs()); }
    fs::path logs() const { return fs::path(dir_.path()) / "logs"; }

    // Writes `texts` (header first) into `file` through a writer that records into a fresh
    // index of the folder, then closes both.
    void writeLog(const std::string& file, const std::vector<std::string>& texts,
                  long long rotateSize = 1 << 20) {
        std::string error;
        std::shared_ptr<DeviceLogIndex> index = DeviceLogIndex::openForWriting(logs(), error);
        ASSERT_TRUE(index) << error;
        DeviceLogWriter::Options options;
        options.logsDir = logs();
        options.rotateSize = rotateSize;
        options.index = index;
        DeviceLogWriter writer(options);
        DeviceLogIndex::Identity identity;
        identity.deviceId = "puck-7";
        identity.mac = "00:11:22:33:44:55";
        identity.displayName = "Kitchen Camera";
        identity.caller = "sat1";
        writer.setIdentity(file, identity);
        const auto log = writer.open(file);
        for (std::size_t i = 0; i < texts.size(); ++i) {
            LogTextInfo info;
            info.header = i == 0;
            info.receivedMs = (kNoon + static_cast<long long>(i)) * 1000;
            ASSERT_TRUE(log->append(texts[i], nullptr, info));
        }
        writer.drain();
        index->flush();
    }
    std::unique_ptr<DeviceLogIndex> reader() const {
        std::string error;
        auto index = DeviceLogIndex::openForReading(logs(), error);
        EXPECT_TRUE(index) << error;
        return index;
    }
    // The bytes a piece points at.
    static std::string bytesOf(const DeviceLogIndex::Piece& piece) {
        std::ifstream in(piece.path, std::ios::binary);
        in.seekg(static_cast<std::streamoff>(piece.offset));
        std::string bytes(piece.length, '\0');
        in.read(&bytes[0], static_cast<std::streamsize>(bytes.size()));
        return in ? bytes : std::string("<missing>");
    }
    // Whether the pieces of `file` cover [0, size) of generation `generation` exactly once.
    static bool covers(const std::vector<DeviceLogIndex::Piece>& pieces, std::int64_t generation,
                       std::uint64_t size) {
        std::uint64_t next = 0;
        for (const auto& piece : pieces) {
            if (piece.generation != generation) continue;
            if (piece.offset != next) return false;
            next += piece.length;
        }
        return next == size;
    }

    nimbtest::TempDir dir_;
};

TEST_F(DeviceLogIndexTest, PiecesPointAtTheirBytesWithHeadersSourcesTimesAndSeverities) {
    const std::string header =
        "\n===== Kitchen Camera - sat1 === 2026/11/24 12:00:00 <-> 2026/11/24 12:00:00 =====\n";
    // A line shaped like a header in the device's text stays text.
    const std::string forged = "\n===== Forged - x === 1999/01/01 00:00:00 <-> 1999/01/01 =====\n";
    writeLog("puck-7001122334455-cam.log",
             {header, "2026-11-24T12:00:05Z cam[1]: ERROR: sensor lost\n", forged,
              "2026-11-24T12:00:09Z cam[1]: INFO: sensor back\n"});
    const auto index = reader();
    DeviceLogIndex::Query all;
    const auto pieces = index->query(all);
    ASSERT_EQ(pieces.size(), 2u);  // the header, then one piece for the texts after it
    EXPECT_TRUE(pieces[0].header);
    EXPECT_EQ(bytesOf(pieces[0]), header);
    EXPECT_FALSE(pieces[1].header);
    EXPECT_EQ(bytesOf(pieces[1]),
              readFile(logs() / "puck-7001122334455-cam.log").substr(header.size()));
    EXPECT_EQ(pieces[1].source.displayName, "Kitchen Camera");
    EXPECT_EQ(pieces[1].source.mac, "00:11:22:33:44:55");
    // The forged header's line has no stamp: it counts at its receive time (12:00:02).
    EXPECT_EQ(pieces[1].firstTime, kNoon + 2);
    EXPECT_EQ(pieces[1].lastTime, kNoon + 9);
    EXPECT_EQ(pieces[1].lines, 3u);  // blank lines do not count
    EXPECT_NE(pieces[1].severities & DeviceLogSeverity::bit(Level::Error), 0);
    EXPECT_NE(pieces[1].severities & DeviceLogSeverity::bit(Level::Info), 0);

    DeviceLogIndex::Query headers;
    headers.headersOnly = true;
    ASSERT_EQ(index->query(headers).size(), 1u);
    DeviceLogIndex::Query errors;
    errors.severities = DeviceLogSeverity::bit(Level::Error);
    EXPECT_EQ(index->query(errors).size(), 1u);
    errors.severities = DeviceLogSeverity::bit(Level::Critical);
    EXPECT_TRUE(index->query(errors).empty());
    DeviceLogIndex::Query later;
    later.since = kNoon + 3600;
    EXPECT_TRUE(index->query(later).empty());
    DeviceLogIndex::Query byName;
    byName.device = "Kitchen Camera";
    EXPECT_EQ(index->query(byName).size(), 2u);
    byName.device = "Garage";
    EXPECT_TRUE(index->query(byName).empty());
}

// After a crash the files are the truth: pieces past a file's end are dropped, bytes the
// index never saw are indexed from the text, and without a database the whole index is
// built again from the files and their backups.
TEST_F(DeviceLogIndexTest, ReopeningFollowsTheFilesAndAMissingIndexIsRebuilt) {
    const std::string file = "dev-a";
    std::vector<std::string> texts{
        "\n===== A - s === 2026/11/24 12:00:00 <-> 2026/11/24 12:00:00 =====\n"};
    for (int i = 0; i < 300; ++i)
        texts.push_back("2026/11/24 12:00:00 WARN line " + std::to_string(i) + "\n");
    writeLog(file, texts, 4096);  // rotates: the first lines are in the backup
    const fs::path path = logs() / file;
    const std::uint64_t backupSize = fs::file_size(logs() / (file + ".back"));
    // What a crash can leave: the file cut shorter than the index knew, then text added
    // that the index never saw.
    fs::resize_file(path, fs::file_size(path) / 2);
    {
        std::ofstream out(path, std::ios::app | std::ios::binary);
        out << "2026/11/24 13:00:00 ERROR written while the index was down\n";
    }
    {
        std::string error;
        ASSERT_TRUE(DeviceLogIndex::openForWriting(logs(), error)) << error;
    }
    auto pieces = reader()->query(DeviceLogIndex::Query());
    ASSERT_FALSE(pieces.empty());
    const std::int64_t current = pieces.back().generation;
    EXPECT_TRUE(covers(pieces, current, fs::file_size(path)));
    EXPECT_TRUE(covers(pieces, current - 1, backupSize));
    DeviceLogIndex::Query errors;
    errors.severities = DeviceLogSeverity::bit(Level::Error);
    ASSERT_EQ(reader()->query(errors).size(), 1u);

    fs::remove(DeviceLogIndex::pathFor(logs()));
    fs::remove(DeviceLogIndex::pathFor(logs()) + "-wal");
    {
        std::string error;
        ASSERT_TRUE(DeviceLogIndex::openForWriting(logs(), error)) << error;
    }
    pieces = reader()->query(DeviceLogIndex::Query());
    ASSERT_FALSE(pieces.empty());
    EXPECT_TRUE(covers(pieces, 1, fs::file_size(path)));
    EXPECT_TRUE(covers(pieces, 0, backupSize));
    for (const auto& piece : pieces) EXPECT_EQ(bytesOf(piece).size(), piece.length);
}

// The index stays a small fraction of the text it covers.
TEST_F(DeviceLogIndexTest, ARangeFindsEveryPieceOverlappingItHoweverLongItSpans) {
    std::string error;
    const std::unique_ptr<DeviceLogIndex> index = DeviceLogIndex::openForWriting(logs(), error);
    ASSERT_TRUE(index) << error;
    const long long t = 1767225600;  // 2026/01/01
    const long long day = 86400;
    struct Span {
        const char* file;
        long long first, last;
    };
    // Short pieces before, inside, across the edges of and after the range [t, t + 1 h),
    // and long ones that start days before it and end inside it or after it.
    const Span spans[] = {{"before.log", t - 600, t - 1},
                          {"inside.log", t + 60, t + 120},
                          {"acrossStart.log", t - 60, t + 60},
                          {"acrossEnd.log", t + 3500, t + 4000},
                          {"after.log", t + 3600, t + 4000},
                          {"longInto.log", t - 3 * day, t + 10},
                          {"longOver.log", t - 3 * day, t + 3 * day},
                          {"longBefore.log", t - 3 * day, t - 2 * day}};
    std::uint64_t offset = 0;
    for (const Span& span : spans) {
        DeviceLogIndex::Text text;
        text.file = span.file;
        text.offset = offset;
        text.length = 10;
        text.receivedMs = span.last * 1000;
        text.firstTime = span.first;
        text.lastTime = span.last;
        text.lines = 1;
        index->record(text);
        index->flush();
    }
    DeviceLogIndex::Query q;
    q.since = t;
    q.until = t + 3600;
    std::set<std::string> found;
    for (const auto order : {DeviceLogIndex::Order::Time, DeviceLogIndex::Order::Place}) {
        q.order = order;
        found.clear();
        for (const DeviceLogIndex::Piece& piece : index->query(q)) found.insert(piece.file);
        EXPECT_EQ(found, (std::set<std::string>{"inside.log", "acrossStart.log", "acrossEnd.log",
                                                "longInto.log", "longOver.log"}));
    }
    // One-sided ranges.
    q = DeviceLogIndex::Query();
    q.since = t + 3600;
    found.clear();
    for (const DeviceLogIndex::Piece& piece : index->query(q)) found.insert(piece.file);
    EXPECT_EQ(found, (std::set<std::string>{"acrossEnd.log", "after.log", "longOver.log"}));
    q = DeviceLogIndex::Query();
    q.until = t - 2 * day + 1;
    found.clear();
    for (const DeviceLogIndex::Piece& piece : index->query(q)) found.insert(piece.file);
    EXPECT_EQ(found, (std::set<std::string>{"longInto.log", "longOver.log", "longBefore.log"}));
}

TEST_F(DeviceLogIndexTest, IsAFewPercentOfTheText) {
    std::vector<std::string> texts{
        "\n===== A - s === 2026/11/24 12:00:00 <-> 2026/11/24 12:00:00 =====\n"};
    const std::string line = "2026/11/24 12:00:00 app[12]: INFO: " + std::string(84, 'x') + "\n";
    for (int request = 0; request < 600; ++request) {
        std::string text;
        for (int i = 0; i < 34; ++i) text += line;
        texts.push_back(text);
    }
    writeLog("dev-size", texts, 64 << 20);
    const double ratio = static_cast<double>(reader()->sizeBytes()) /
                         static_cast<double>(fs::file_size(logs() / "dev-size"));
    EXPECT_LT(ratio, 0.03) << ratio;
}

TEST(DeviceLogLines, LineTimesComeFromTheStampsTheyStartWith) {
    nimbtest::ScopedTimeZone zone("UTC");
    struct Case {
        const char* line;
        long long time;
    };
    const Case cases[] = {
        {"2026/11/24 12:00:05 converted stamp", kNoon + 5},
        {"2026-11-24T12:00:05Z iso", kNoon + 5},
        {"2026-11-24T13:00:05+01:00 iso with a zone", kNoon + 5},
        {"2026-11-24 12:00:05.123 with milliseconds", kNoon + 5},
        {"Nov 24 12:00:05 router dnsmasq: syslog", kNoon + 5},
        {"Nov  4 12:00:05 one-digit day", kNoon - 20 * 86400 + 5},
        {"no stamp at all", kNoon},
        {"2026/13/24 12:00:05 no such month", kNoon},
    };
    for (const Case& c : cases)
        EXPECT_EQ(DeviceLogLines::lineTime(c.line, kNoon), c.time) << c.line;
    const auto summary = DeviceLogLines::summarize(
        "2026/11/24 12:00:09 b\n\nno stamp\n2026/11/24 12:00:05 a", kNoon);
    EXPECT_EQ(summary.lines, 3u);
    EXPECT_EQ(summary.firstTime, kNoon);
    EXPECT_EQ(summary.lastTime, kNoon + 9);
}

// Each thread keeps the calendar sum of the last day of four consecutive years: stamps in
// any order of days and years give the time the calendar rule and the zone's offset give.
TEST(DeviceLogLines, LineTimesOfAnyOrderOfDaysFollowTheCalendar) {
    nimbtest::ScopedTimeZone zone("Europe/Berlin");
    std::mt19937 random(20261124);
    std::uniform_int_distribution<int> year(1971, 2100), month(1, 12), day(1, 31), hour(0, 23),
        minute(0, 59), second(0, 59);
    for (int i = 0; i < 20000; ++i) {
        tm t{};
        t.tm_year = year(random) - 1900;
        t.tm_mon = month(random) - 1;
        t.tm_mday = day(random);  // the 31st of a short month carries into the next one
        t.tm_hour = hour(random);
        t.tm_min = minute(random);
        t.tm_sec = second(random);
        const long long utc = DeviceLogConverter::utcSeconds(t);
        const time_t probe = static_cast<time_t>(utc);
        tm local{};
        localtime_r(&probe, &local);
        char line[64];
        std::snprintf(line, sizeof line, "%04d/%02d/%02d %02d:%02d:%02d x", t.tm_year + 1900,
                      t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
        ASSERT_EQ(DeviceLogLines::lineTime(line, kNoon), utc - local.tm_gmtoff) << line;
        std::snprintf(line, sizeof line, "%04d-%02d-%02dT%02d:%02d:%02dZ x", t.tm_year + 1900,
                      t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
        ASSERT_EQ(DeviceLogLines::lineTime(line, kNoon), utc) << line;
    }
}

}  // namespace
