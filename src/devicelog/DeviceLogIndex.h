// SPDX-License-Identifier: MIT
// DeviceLogIndex: what the collector wrote where, kept in an SQLite database beside the
// logs ("<logs folder>/history/index.sqlite", WAL mode, so that readers such as nimb-logs and
// nimb-web query it while the collector writes). Per log file: its generations (a new
// one whenever the file at the name is a new file: a rotation, or a file removed and
// created again) and where older generations went (".back", history). Per written piece
// (consecutive texts of one log and one source, up to kMaxPieceBytes or kMaxPieceSeconds):
// the generation, byte offset and length, the server's receive times, the device time and
// clock offset in force, the range of the line times it holds, which severities its lines
// hold, how many lines, and the source's identity as the collector established it. Every
// announce (header line) is a piece of its own marked as a header, so readers know which
// header lines are real. The index follows the files: a piece is recorded only after its
// bytes were written, so it never points at bytes that are not in the file; what a crash
// kept from the index is completed from the files when the index is opened again
// (reconcile()), and the whole index can be rebuilt from the files (rebuild()).
// Beside it, the collector's counters over time: one row per minute (counters as their
// increase over the minute, gauges as their value), kSeriesMinutes kept; read back in
// buckets of whole minutes (series()).
// One writer per database (the collector); writer side: any thread records, one thread of
// its own commits. Readers open their own instance read-only.
// Errors: nothing throws after open(); a failed database write is reported at a bounded
// rate on the default logger and the index is rebuilt from the files at the next start.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "PCondMutex.h"
#include "ThreadAnnotations.h"

class PThread;
struct sqlite3;

class DeviceLogIndex {
public:
    // Where a log's source came from, as the collector established it.
    struct Identity {
        std::string deviceId;     // the announce's device id (bus), the sender name (syslog)
        std::string mac;          // as announced (bus)
        std::string displayName;  // as announced (bus), the sender name (syslog)
        std::string caller;       // the caller's satellite name (bus)
        std::string account;      // the bus account that sent it, when the bus has accounts
        std::string peer;         // the sender's address (syslog)
        bool operator==(const Identity& other) const;
    };
    // One text as written, with what its writer knew of it.
    struct Text {
        std::string file;          // the log file's name in the logs folder
        std::uint64_t fileId = 0;  // identity of the file written (device and inode)
        std::uint64_t offset = 0;  // where in that file the text starts
        std::uint64_t length = 0;
        long long receivedMs = 0;  // when the collector received it (ms since 1970 UTC)
        bool hasDeviceTime = false;
        long long deviceTime = 0;      // the device's clock then (s since 1970 UTC)
        long long clockOffset = 0;     // server minus device, seconds, as converted by
        long long firstTime = 0;       // the earliest and latest line time (s since 1970
        long long lastTime = 0;        //   UTC); a line without a stamp: its receive time
        std::uint16_t severities = 0;  // bit 1 << level per line (DeviceLogSeverity)
        std::uint32_t lines = 0;
        bool header = false;  // an announce's header line
    };
    // A piece as stored, with the place its bytes are in now.
    struct Piece {
        std::int64_t id = 0;
        std::string file;
        std::int64_t generation = 0;
        std::string path;  // the file holding the generation now ("" when gone)
        // For a piece of the log's current generation: the identity of its file (device
        // and inode) as last committed; 0 otherwise. A log file found with another one was
        // rotated after that commit.
        std::uint64_t currentFileId = 0;
        std::uint64_t offset = 0;
        std::uint64_t length = 0;
        long long firstReceivedMs = 0;
        long long lastReceivedMs = 0;
        bool hasDeviceTime = false;
        long long deviceTime = 0;
        long long clockOffset = 0;
        long long firstTime = 0;
        long long lastTime = 0;
        std::uint16_t severities = 0;
        std::uint32_t lines = 0;
        bool header = false;
        Identity source;
    };
    // The order of the pieces a query gives: by their first line time, by place (log,
    // generation, offset: the order of the index itself, the cheapest for many pieces), or
    // by id (the order pieces were started in, which a follower of every log reads in).
    enum class Order { Time, Place, Id };
    // What a reader asks for; empty fields do not filter.
    struct Query {
        long long since = 0;             // line times at or after (s since 1970 UTC); 0: any
        long long until = 0;             // line times before; 0: any
        std::uint16_t severities = 0;    // any of these (0: any)
        std::string device;              // device id, display name, MAC or file name prefix
        std::string file;                // exactly this log file
        std::vector<std::string> files;  // any of these log files (more than
                                         // kMaxQueryFiles: any file)
        bool headersOnly = false;
        std::int64_t fromId = 0;  // pieces with this id or a greater one (0: any); ids grow
                                  // with each new piece
        std::size_t limit = 100000;
        Order order = Order::Time;
        bool withSource = true;  // false: Piece::source stays empty (cheaper)
    };

    // Log files a query names at most (Query::files).
    static constexpr std::size_t kMaxQueryFiles = 1024;
    // Pieces grow until this many bytes or this span of receive times.
    static constexpr std::uint64_t kMaxPieceBytes = 256 * 1024;
    static constexpr long long kMaxPieceSeconds = 300;
    // The writer's commits: at most this far apart.
    static constexpr int kCommitIntervalMs = 500;
    // The database, in the history folder inside the logs folder.
    static constexpr const char* kFolderName = "history";
    static constexpr const char* kFileName = "index.sqlite";
    // The database's path for the logs folder `logsDir`.
    static std::string pathFor(const std::string& logsDir);

    DeviceLogIndex(const DeviceLogIndex&) = delete;
    DeviceLogIndex& operator=(const DeviceLogIndex&) = delete;
    // Commits what is pending and closes.
    ~DeviceLogIndex();

    // Opens (creating when missing) the index of `logsDir` for writing and starts its commit
    // thread. A database that cannot be read is moved aside and built again from the files.
    // Then completes the index from the files (reconcile()). Null with `error` set when
    // the database cannot be created at all.
    static std::unique_ptr<DeviceLogIndex> openForWriting(const std::string& logsDir,
                                                          std::string& error);
    // Opens the index of `logsDir` read-only (no thread); null with `error` when missing.
    static std::unique_ptr<DeviceLogIndex> openForReading(const std::string& logsDir,
                                                          std::string& error);

    // Writer side, any thread.
    // The log `file`'s source from now on (the last announce, or the syslog sender).
    void setIdentity(const std::string& file, const Identity& identity);
    // A text was written: extends the log's open piece or starts a new one.
    void record(const Text& text);
    // The log `file`'s ".back" (generation before the current one) was moved to `path`.
    void movedToHistory(const std::string& file, const std::string& path);
    // Commits everything recorded so far; returns once it is in the database.
    void flush();

    // Compares the index with the files and completes it: pieces past a file's end are
    // dropped, a file that is a new file gets a new generation, bytes the index does not
    // cover are indexed from their text (times from their stamps, else the file's
    // modification time; severities detected). Writer side, before recording.
    void reconcile();
    // Forgets everything and indexes every device log file and its ".back" again.
    void rebuild();

    // Reader side.
    std::vector<Piece> query(const Query& query) const;
    // The logs the index knows: file name, current generation and the identity of their
    // last piece; with `totals`, their pieces, bytes and line-time range too (which reads
    // every piece).
    struct LogInfo {
        std::string file;
        std::int64_t generation = 0;
        Identity source;
        std::uint64_t pieces = 0;
        std::uint64_t bytes = 0;
        long long firstTime = 0, lastTime = 0;
    };
    std::vector<LogInfo> logs(bool totals = true) const;
    // The id of the newest piece (0 when there is none): pieces with greater ids are newer.
    std::int64_t lastPieceId() const;
    // The database's size in bytes (main file and write-ahead log).
    std::uint64_t sizeBytes() const;

    // ---- The collector's counters over time ----
    // What one reading of the counters adds to the minute `minute` (minutes since 1970
    // UTC): each counter's increase since the reading before, each gauge's value. Names
    // are letters, digits, ".", "_" and "-" (at most kMaxSeriesName bytes); others are
    // left out.
    struct SeriesSample {
        long long minute = 0;
        std::vector<std::pair<std::string, std::int64_t>> increases;
        std::vector<std::pair<std::string, std::int64_t>> gauges;
    };
    // The rows kept: a week of minutes before the newest.
    static constexpr long long kSeriesMinutes = 7 * 24 * 60;
    static constexpr std::size_t kMaxSeriesName = 64;
    // Writer side, any thread: the next commit adds the sample to its minute's row
    // (increases add up, a gauge takes the newest value) and removes the rows more than
    // kSeriesMinutes before it.
    void recordSample(SeriesSample sample);

    // The series in buckets: bucket i covers [since + i * step, since + (i + 1) * step).
    struct Series {
        long long since = 0, until = 0, step = 0;  // seconds since 1970 UTC, seconds
        std::vector<bool> present;                 // per bucket: some minute of it has a row
        struct Column {
            std::string name;
            bool gauge = false;
            std::vector<std::int64_t> values;  // per bucket: the increases' sum, the
                                               // gauge's greatest value; 0 without rows
        };
        std::vector<Column> columns;  // by name
    };
    // Reader side: the rows from `since` to `until` (seconds; widened to whole buckets)
    // in buckets of `step` seconds (whole minutes, at least one), or of the least of 2, 5,
    // 10, 15, 30 minutes, 1, 2, 3, 6, 12 hours, a day (or a longer step) that gives at
    // most `maxPoints` buckets. Only the columns `names` when given.
    Series series(long long since, long long until, long long step, std::size_t maxPoints,
                  const std::vector<std::string>& names = {}) const;
    // The step series() takes for these bounds (minutes), and the bounds widened to it.
    static long long seriesStep(long long& sinceMinute, long long& untilMinute,
                                long long stepMinutes, std::size_t maxPoints);

private:
    // The piece a log is growing, as it will be stored (its file and path unused).
    using OpenPiece = Piece;
    struct LogState;
    struct Snapshot;
    DeviceLogIndex(std::string logsDir, sqlite3* db);

    LogState& stateLocked(const std::string& file) NIMB_REQUIRES(mutex_);
    // Hands the log's growing piece to the next commit and starts none.
    void finishPieceLocked(const std::string& file, LogState& log) NIMB_REQUIRES(mutex_);
    void takeSnapshotLocked(std::vector<Snapshot>& batch) NIMB_REQUIRES(mutex_);
    void* run(void*);
    // Writes one batch and the samples in one transaction (dbMutex_ taken inside).
    void commit(const std::vector<Snapshot>& batch, const std::vector<SeriesSample>& samples);
    // Adds the samples to their rows and prunes the old ones; false on a failed write.
    bool writeSamples(const std::vector<SeriesSample>& samples) NIMB_REQUIRES(dbMutex_);
    // Adds the columns of `sample` the series table lacks.
    bool addSeriesColumns(const SeriesSample& sample) NIMB_REQUIRES(dbMutex_);
    void flushNow();
    std::int64_t logIdOf(const std::string& file) NIMB_REQUIRES(dbMutex_);
    std::int64_t sourceIdOf(const Identity& source) NIMB_REQUIRES(dbMutex_);
    bool exec(const char* sql) const;
    void report(const std::string& what) NIMB_REQUIRES(dbMutex_);
    void loadLocked() NIMB_REQUIRES(mutex_, dbMutex_);
    void reconcileLog(const std::string& file);
    // The device log files in the logs folder (a backup counts for its log).
    std::vector<std::string> deviceLogFiles() const;
    void indexWholeLog(const std::string& file);
    void indexFileText(const std::string& file, std::int64_t generation, const std::string& path,
                       std::uint64_t from);
    void indexText(const std::string& file, std::int64_t generation, std::string_view text,
                   std::uint64_t offset, long long modified);
    std::vector<std::pair<std::string, bool>> historyOf(const std::string& file) const;
    static bool readGeneration(const std::string& path, bool compressed, std::string& text);
    std::string pathOf(const std::string& file, std::int64_t generation, std::int64_t current,
                       const std::string& historyPath) const;

    // Immutable after construction.
    const std::string logsDir_;
    sqlite3* const db_;

    // Writer side: what record() gathers for the next commit.
    mutable PCondMutex mutex_;
    std::map<std::string, std::unique_ptr<LogState>> logs_ NIMB_GUARDED_BY(mutex_);
    std::vector<std::pair<std::string, OpenPiece>> finished_ NIMB_GUARDED_BY(mutex_);
    std::int64_t nextPieceId_ NIMB_GUARDED_BY(mutex_) = 1;
    bool dirty_ NIMB_GUARDED_BY(mutex_) = false;
    bool stop_ NIMB_GUARDED_BY(mutex_) = false;
    std::vector<SeriesSample> samples_ NIMB_GUARDED_BY(mutex_);
    std::uint64_t flushRequested_ NIMB_GUARDED_BY(mutex_) = 0;
    std::uint64_t flushDone_ NIMB_GUARDED_BY(mutex_) = 0;
    std::unique_ptr<PThread> thread_;  // the commit thread; set by openForWriting()

    // The database connection and what the commits remember of it.
    mutable PMutex dbMutex_;
    std::map<std::string, std::int64_t> logIds_ NIMB_GUARDED_BY(dbMutex_);
    std::map<std::string, std::int64_t> sourceIds_ NIMB_GUARDED_BY(dbMutex_);
    // The series table's columns (besides the minute), once read.
    bool seriesColumnsRead_ NIMB_GUARDED_BY(dbMutex_) = false;
    std::map<std::string, bool> seriesColumns_ NIMB_GUARDED_BY(dbMutex_);  // name: gauge
    long long reportAt_ NIMB_GUARDED_BY(dbMutex_) = 0;
};
