// SPDX-License-Identifier: MIT
// The collector's counters over time in a real index: readings become per-minute rows
// of increases (a restart adds to them, never drops), gauges keep their value, rows
// older than a week go, and a long range is read back in few, whole-minute buckets.

#include "CollectorSeries.h"

#include <algorithm>
#include <numeric>
#include <string>

#include <gtest/gtest.h>

#include "NimbTestSupport.h"

namespace {

constexpr long long kMinute = 1795521600 / 60;  // 2026-11-24 12:00 UTC, in minutes

class CollectorSeriesTest : public ::testing::Test {
protected:
    std::unique_ptr<DeviceLogIndex> writer() {
        std::string error;
        auto index = DeviceLogIndex::openForWriting(dir_.path(), error);
        EXPECT_TRUE(index) << error;
        return index;
    }
    DeviceLogIndex::Series read(long long since, long long until, long long step,
                                std::vector<std::string> names = {}) {
        std::string error;
        const auto index = DeviceLogIndex::openForReading(dir_.path(), error);
        EXPECT_TRUE(index) << error;
        return index ? index->series(since * 60, until * 60, step, 500, names)
                     : DeviceLogIndex::Series();
    }
    static std::vector<std::int64_t> column(const DeviceLogIndex::Series& series,
                                            const std::string& name) {
        for (const auto& c : series.columns)
            if (c.name == name) return c.values;
        return {};
    }

    nimbtest::TempDir dir_;
};

TEST_F(CollectorSeriesTest, MinutesHoldIncreasesAcrossARestartAndGaugesAsRead) {
    {
        const auto index = writer();
        CollectorSeries series;
        index->recordSample(series.sample(kMinute, {{"linesWritten", 10}, {"queueDepth", 3}}));
        // A second reading in the same minute adds to it.
        index->recordSample(series.sample(kMinute, {{"linesWritten", 15}, {"queueDepth", 5}}));
        index->recordSample(series.sample(kMinute + 1, {{"linesWritten", 20}, {"queueDepth", 1}}));
    }
    {
        // A new process counts from zero again: its readings add to the same minute.
        const auto index = writer();
        CollectorSeries series;
        index->recordSample(series.sample(kMinute + 1, {{"linesWritten", 4}, {"queueDepth", 2}}));
        index->recordSample(series.sample(
            kMinute + 2, {{"linesWritten", 6}, {"queueDepth", 0}, {"syslog.messages", 7}}));
        // A counter read lower than before counts anew.
        index->recordSample(series.sample(kMinute + 4, {{"linesWritten", 1}, {"queueDepth", 0}}));
        index->flush();
    }
    const DeviceLogIndex::Series s = read(kMinute, kMinute + 5, 60);
    EXPECT_EQ(s.present, (std::vector<bool>{true, true, true, false, true}));
    EXPECT_EQ(column(s, "linesWritten"), (std::vector<std::int64_t>{15, 9, 2, 0, 1}));
    EXPECT_EQ(column(s, "queueDepth"), (std::vector<std::int64_t>{5, 2, 0, 0, 0}));
    // A name that came later: nothing before it.
    EXPECT_EQ(column(s, "syslog.messages"), (std::vector<std::int64_t>{0, 0, 7, 0, 0}));
    EXPECT_TRUE(read(kMinute, kMinute + 5, 60, {"queueDepth"}).columns.at(0).gauge);
    // Readings close the interval that ends at their time, a divisor of a minute.
    EXPECT_EQ(CollectorSeries::interval(7), 6);
    const long long due = CollectorSeries::nextReading(kMinute * 60000 + 59500, 60);
    EXPECT_EQ(due, (kMinute + 1) * 60000);
    EXPECT_EQ(CollectorSeries::minuteClosedBy(due), kMinute);
}

TEST_F(CollectorSeriesTest, KeepsAWeekAndReadsLongRangesInBoundedWholeBuckets) {
    const long long week = DeviceLogIndex::kSeriesMinutes;
    const long long newest = kMinute - 1;
    {
        const auto index = writer();
        CollectorSeries series;
        index->recordSample(series.sample(newest - week - 1, {{"linesWritten", 1000}}));
        index->recordSample(series.sample(newest - week, {{"linesWritten", 2000}}));
        // The last day: one line a minute, the queue depth rising.
        for (long long m = kMinute - 1440; m < kMinute; ++m) {
            const long long i = m - (kMinute - 1440) + 1;
            index->recordSample(
                series.sample(m, {{"linesWritten", static_cast<std::uint64_t>(2000 + i)},
                                  {"queueDepth", static_cast<std::uint64_t>(i)}}));
        }
        index->flush();
    }
    // The row a week before the newest stays, the one before it is gone.
    const DeviceLogIndex::Series edge = read(newest - week - 1, newest - week + 1, 60);
    EXPECT_EQ(edge.present, (std::vector<bool>{false, true}));
    EXPECT_EQ(column(edge, "linesWritten")[1], 1000);

    // A day in 5-minute buckets (2-minute ones would be more than 500).
    const DeviceLogIndex::Series day = read(kMinute - 1440, kMinute, 60);
    EXPECT_EQ(day.step, 300);
    ASSERT_EQ(day.present.size(), 288u);
    const auto lines = column(day, "linesWritten");
    const auto depth = column(day, "queueDepth");
    EXPECT_EQ(std::accumulate(lines.begin(), lines.end(), 0LL), 1440);
    EXPECT_EQ(lines[17], 5);
    EXPECT_EQ(depth[0], 5);  // a gauge's greatest value in its bucket
    EXPECT_EQ(depth[287], 1440);

    // A week in half hours; a range off the bucket grid is widened to whole buckets.
    const DeviceLogIndex::Series all = read(kMinute - week, kMinute, 60);
    EXPECT_EQ(all.step, 1800);
    EXPECT_EQ(all.present.size(), 336u);
    EXPECT_EQ(std::count(all.present.begin(), all.present.end(), true), 48);
    const DeviceLogIndex::Series hours = read(kMinute - 61, kMinute - 1, 3600);
    EXPECT_EQ(hours.since, (kMinute - 120) * 60);
    EXPECT_EQ(hours.present.size(), 2u);
    EXPECT_EQ(column(hours, "linesWritten"), (std::vector<std::int64_t>{60, 60}));
}

}  // namespace
