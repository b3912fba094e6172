// SPDX-License-Identifier: MIT
// LogIndexView: the console's read-only view of the collector's index of what it wrote
// ("<logs>/history/index.sqlite"), opened when it exists (an old logs folder has none and
// the console then reads the files as before). From it: each log's lines per 10 minutes
// over the last 24 hours split by severity (every line, at its own stamp or else at its
// receive time), the newest real header line of each log (the collector marks the ones
// it wrote, so header-shaped text a device sent is never taken for one), the severity
// of the lines of a piece of text, and the text of any piece wherever it is now (the
// log file, its ".back" or a history generation, compressed or not).
// Thread-safe: one mutex around the database and the caches.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "DeviceLogIndex.h"
#include "DeviceLogSeverity.h"
#include "LogText.h"
#include "PMutex.h"

class LogIndexView {
public:
    static constexpr int kBinMinutes = 10;
    static constexpr int kBins = 24 * 60 / kBinMinutes;
    // Severity classes of the activity plot.
    enum Class { kErrors = 0, kWarnings = 1, kOthers = 2, kClasses = 3 };
    using Activity = std::array<std::array<std::uint32_t, kBins>, kClasses>;

    // What the index says of one log (its current file, its ".back" and its history).
    struct LogFacts {
        Activity activity{};  // bin kBins-1 ends at the window's end
        bool hasHeader = false;
        LogText::Header header;           // the newest header the collector wrote
        long long headerMs = 0;           // when it was received
        DeviceLogIndex::Identity source;  // the log's source as last established
    };

    explicit LogIndexView(std::string folder);
    LogIndexView(const LogIndexView&) = delete;
    LogIndexView& operator=(const LogIndexView&) = delete;

    // Whether an index exists (opened on first use, and again once it appears).
    bool available();
    // Pieces as DeviceLogIndex::query gives them; empty without an index.
    std::vector<DeviceLogIndex::Piece> query(const DeviceLogIndex::Query& query);
    // The collector's counters over time (DeviceLogIndex::series); no columns without an
    // index.
    DeviceLogIndex::Series series(long long since, long long until, long long step,
                                  std::size_t maxPoints, const std::vector<std::string>& names);
    // The newest piece's id (DeviceLogIndex::lastPieceId); 0 without an index.
    std::int64_t lastPieceId();
    // Facts of every log the index knows, by log file name; the window ends at `end`.
    std::map<std::string, LogFacts> facts(std::int64_t end);
    // The level of each line of `text`, which is the bytes of `file` (a log file or its
    // ".back") from `start`: as the line states it, else the level of the piece holding
    // it when that piece holds lines of one level only (syslog's priority).
    // The numbers of the lines that are header lines the collector wrote go to `headers`.
    std::vector<DeviceLogSeverity::Level> levels(const std::string& file, std::uint64_t start,
                                                 std::string_view text,
                                                 std::vector<std::size_t>& headers);

    // Appends [offset, offset + length) of the file at `path` (a path a piece gave: a
    // file in the logs folder or a history generation below it) to `out`. False when
    // the path is not one of those or cannot be read.
    static bool readPath(const std::string& folder, const std::string& path, std::uint64_t offset,
                         std::size_t length, std::string& out);
    // Opens the history generation at `path` (as a piece gives it), compressed (its ".zst",
    // `compressed` set) or still plain; -1 when it is not one or cannot be opened.
    static int openGeneration(const std::string& folder, const std::string& path, bool& compressed);
    // Whether the file at `path` (as for readPath) may hold `needle`: false only for a
    // compressed history generation whose filter shows the needle is not in its text.
    static bool mayHold(const std::string& folder, const std::string& path,
                        std::string_view needle);
    // The class a level falls into.
    static Class classOf(DeviceLogSeverity::Level level);
    // The one level a mask holds, Unknown when it holds none or several.
    static DeviceLogSeverity::Level soleLevel(std::uint16_t mask);

private:
    // Counts of one piece per absolute 10-minute bin (time / 600).
    struct Counted {
        std::uint64_t length = 0;
        std::vector<std::pair<std::int64_t, std::array<std::uint32_t, kClasses>>> bins;
    };
    bool openLocked() NIMB_REQUIRES(mutex_);
    void count(const DeviceLogIndex::Piece& piece, std::uint64_t& budget, Counted& counted) const;

    const std::string folder_;
    PMutex mutex_;
    std::unique_ptr<DeviceLogIndex> index_ NIMB_GUARDED_BY(mutex_);
    std::map<std::int64_t, Counted> counted_ NIMB_GUARDED_BY(mutex_);          // by piece id
    std::map<std::int64_t, LogText::Header> headers_ NIMB_GUARDED_BY(mutex_);  // by piece id
};
