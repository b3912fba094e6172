// SPDX-License-Identifier: MIT
// The index's writer side: pieces gathered in memory per log and committed by one thread
// in a transaction every kCommitIntervalMs; the reader side's queries; reconciliation with
// and rebuilding from the files.
#include "DeviceLogIndex.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <set>
#include <sstream>

#include <dirent.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <boost/shared_ptr.hpp>

#include "CBBLog.h"
#include "DeviceLogHistoryFrames.h"
#include "DeviceLogLines.h"
#include "PThread.h"
#include "PThreadDelegate.h"
#include "RotatingLogFile.h"
#include "SqliteStatement.h"

namespace {

const char* const kSchema = R"(
CREATE TABLE IF NOT EXISTS logs(
    id INTEGER PRIMARY KEY, file TEXT NOT NULL UNIQUE,
    generation INTEGER NOT NULL DEFAULT 0, file_id INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS sources(
    id INTEGER PRIMARY KEY, device_id TEXT NOT NULL, mac TEXT NOT NULL,
    display_name TEXT NOT NULL, caller TEXT NOT NULL, account TEXT NOT NULL, peer TEXT NOT NULL,
    UNIQUE(device_id, mac, display_name, caller, account, peer));
CREATE TABLE IF NOT EXISTS history(
    log INTEGER NOT NULL, generation INTEGER NOT NULL, path TEXT NOT NULL,
    PRIMARY KEY(log, generation));
CREATE TABLE IF NOT EXISTS pieces(
    id INTEGER PRIMARY KEY, log INTEGER NOT NULL, generation INTEGER NOT NULL,
    offset INTEGER NOT NULL, length INTEGER NOT NULL,
    first_received INTEGER NOT NULL, last_received INTEGER NOT NULL,
    device_time INTEGER, clock_offset INTEGER NOT NULL,
    first_time INTEGER NOT NULL, last_time INTEGER NOT NULL,
    severities INTEGER NOT NULL, lines INTEGER NOT NULL, header INTEGER NOT NULL,
    source INTEGER NOT NULL);
CREATE INDEX IF NOT EXISTS pieces_by_place ON pieces(log, generation, offset);
CREATE INDEX IF NOT EXISTS pieces_by_time ON pieces(last_time);
CREATE INDEX IF NOT EXISTS pieces_headers ON pieces(log) WHERE header = 1;
CREATE INDEX IF NOT EXISTS pieces_by_first ON pieces(first_time);
CREATE INDEX IF NOT EXISTS pieces_by_span ON pieces(last_time - first_time);
CREATE TABLE IF NOT EXISTS series(minute INTEGER PRIMARY KEY);
CREATE TABLE IF NOT EXISTS series_names(name TEXT PRIMARY KEY, gauge INTEGER NOT NULL);
)";

// WAL, so that readers never wait for the writer; the write-ahead log is folded back into
// the database every 64 pages and cut to 256 KiB afterwards, so that it stays small on a
// small disk.
const char* const kPragmas =
    "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL; PRAGMA wal_autocheckpoint=64; "
    "PRAGMA journal_size_limit=262144;";

// The least time between two reports of failed database writes.
constexpr long long kReportIntervalMs = 10000;

long long nowMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

using Statement = SqliteStatement;

// Whether the file at `path` holds a device log rather than a program's own log: it
// starts with a header line (as every device log the collector creates does), or, for a
// later generation, its first line is not an own-log line ("YYYY/MM/DD hh:mm:ss.mmm [").
bool looksLikeDeviceLog(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    char start[25] = {};
    in.read(start, sizeof(start));
    const std::size_t got = static_cast<std::size_t>(in.gcount());
    if (got >= 7 && std::memcmp(start, "\n===== ", 7) == 0) return true;
    if (got < sizeof(start)) return got > 0;
    auto digit = [&](int i) { return start[i] >= '0' && start[i] <= '9'; };
    for (const int i : {0, 1, 2, 3, 5, 6, 8, 9, 11, 12, 14, 15, 17, 18, 20, 21, 22}) {
        if (!digit(i)) return true;
    }
    return !(start[4] == '/' && start[7] == '/' && start[10] == ' ' && start[19] == '.' &&
             start[23] == ' ' && start[24] == '[');
}

}  // namespace

bool DeviceLogIndex::Identity::operator==(const Identity& other) const {
    return deviceId == other.deviceId && mac == other.mac && displayName == other.displayName &&
           caller == other.caller && account == other.account && peer == other.peer;
}

struct DeviceLogIndex::LogState {
    std::int64_t generation = 0;
    std::uint64_t fileId = 0;
    Identity identity;
    bool hasPiece = false;
    bool pieceDirty = false;
    OpenPiece piece;
    bool logDirty = true;  // generation or file id to store
    std::vector<std::pair<std::int64_t, std::string>> historyPaths;  // generations moved away
};

// What one commit writes for one log.
struct DeviceLogIndex::Snapshot {
    std::string file;
    std::int64_t generation = 0;
    std::uint64_t fileId = 0;
    bool logDirty = false;
    std::vector<OpenPiece> pieces;
    std::vector<std::pair<std::int64_t, std::string>> history;  // generation, path
};

DeviceLogIndex::DeviceLogIndex(std::string logsDir, sqlite3* db)
    : logsDir_(std::move(logsDir)), db_(db) {}

DeviceLogIndex::~DeviceLogIndex() {
    if (thread_) {
        {
            PMutexLocker lock(mutex_);
            stop_ = true;
            mutex_.broadcast();
        }
        thread_->join();
    }
    sqlite3_close(db_);
}

std::string DeviceLogIndex::pathFor(const std::string& logsDir) {
    return logsDir + "/" + kFolderName + "/" + kFileName;
}

std::unique_ptr<DeviceLogIndex> DeviceLogIndex::openForWriting(const std::string& logsDir,
                                                               std::string& error) {
    const std::string path = pathFor(logsDir);
    mkdir(logsDir.c_str(), 0775);
    mkdir((logsDir + "/" + kFolderName).c_str(), 0775);
    bool fresh = access(path.c_str(), F_OK) != 0;
    sqlite3* db = nullptr;
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (sqlite3_open_v2(path.c_str(), &db,
                            SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOFOLLOW,
                            nullptr) == SQLITE_OK &&
            sqlite3_exec(db, kPragmas, nullptr, nullptr, nullptr) == SQLITE_OK &&
            sqlite3_exec(db, kSchema, nullptr, nullptr, nullptr) == SQLITE_OK) {
            break;
        }
        error = std::string("cannot open the index '") + path +
                "': " + (db != nullptr ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        db = nullptr;
        if (attempt == 1) return nullptr;
        // A damaged database is set aside and built again from the files.
        const std::string aside = path + ".damaged";
        std::rename(path.c_str(), aside.c_str());
        std::remove((path + "-wal").c_str());
        std::remove((path + "-shm").c_str());
        CBBLog::error("Index: %s; moved aside to %s and rebuilt from the files", error.c_str(),
                      aside.c_str());
        fresh = true;
    }
    chmod(path.c_str(), RotatingLogFile::kFileMode);
    sqlite3_busy_timeout(db, 5000);
    std::unique_ptr<DeviceLogIndex> index(new DeviceLogIndex(logsDir, db));
    if (fresh) {
        index->rebuild();
    } else {
        index->reconcile();
    }
    index->thread_ = std::make_unique<PThread>(
        PThreadDelegateMember<DeviceLogIndex>(index.get(), &DeviceLogIndex::run), nullptr,
        "nimb-index");
    return index;
}

std::unique_ptr<DeviceLogIndex> DeviceLogIndex::openForReading(const std::string& logsDir,
                                                               std::string& error) {
    const std::string path = pathFor(logsDir);
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOFOLLOW, nullptr) !=
        SQLITE_OK) {
        error = std::string("cannot open the index '") + path +
                "': " + (db != nullptr ? sqlite3_errmsg(db) : "out of memory");
        sqlite3_close(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, 5000);
    return std::unique_ptr<DeviceLogIndex>(new DeviceLogIndex(logsDir, db));
}

// ---- Writer side: gathering ----

DeviceLogIndex::LogState& DeviceLogIndex::stateLocked(const std::string& file) {
    std::unique_ptr<LogState>& state = logs_[file];
    if (!state) state = std::make_unique<LogState>();
    return *state;
}

void DeviceLogIndex::setIdentity(const std::string& file, const Identity& identity) {
    PMutexLocker lock(mutex_);
    stateLocked(file).identity = identity;
}

void DeviceLogIndex::movedToHistory(const std::string& file, const std::string& path) {
    PMutexLocker lock(mutex_);
    LogState& log = stateLocked(file);
    // The backup being replaced holds the generation before the current one.
    log.historyPaths.emplace_back(log.generation - 1, path);
    dirty_ = true;
}

void DeviceLogIndex::record(const Text& text) {
    PMutexLocker lock(mutex_);
    LogState& log = stateLocked(text.file);
    if (text.fileId != log.fileId) {
        // Another file at the name: a rotation, or a file removed and created again.
        if (log.fileId != 0) {
            finishPieceLocked(text.file, log);
            ++log.generation;
        }
        log.fileId = text.fileId;
        log.logDirty = true;
    }
    OpenPiece& piece = log.piece;
    const bool extends =
        log.hasPiece && !text.header && !piece.header && piece.generation == log.generation &&
        piece.offset + piece.length == text.offset && piece.hasDeviceTime == text.hasDeviceTime &&
        piece.clockOffset == text.clockOffset && piece.source == log.identity &&
        piece.length + text.length <= kMaxPieceBytes &&
        text.receivedMs - piece.firstReceivedMs <= kMaxPieceSeconds * 1000;
    if (!extends) {
        finishPieceLocked(text.file, log);
        piece = OpenPiece();
        piece.id = nextPieceId_++;
        piece.generation = log.generation;
        piece.offset = text.offset;
        piece.firstReceivedMs = text.receivedMs;
        piece.hasDeviceTime = text.hasDeviceTime;
        piece.clockOffset = text.clockOffset;
        piece.firstTime = text.firstTime;
        piece.lastTime = text.lastTime;
        piece.header = text.header;
        piece.source = log.identity;
        log.hasPiece = true;
    }
    piece.length += text.length;
    piece.lastReceivedMs = text.receivedMs;
    piece.deviceTime = text.deviceTime;
    if (text.lines != 0) {
        piece.firstTime =
            piece.lines == 0 ? text.firstTime : std::min(piece.firstTime, text.firstTime);
        piece.lastTime = piece.lines == 0 ? text.lastTime : std::max(piece.lastTime, text.lastTime);
    }
    piece.severities |= text.severities;
    piece.lines += text.lines;
    log.pieceDirty = true;
    dirty_ = true;
}

void DeviceLogIndex::finishPieceLocked(const std::string& file, LogState& log) {
    if (log.hasPiece && log.pieceDirty) finished_.emplace_back(file, log.piece);
    log.hasPiece = false;
    log.pieceDirty = false;
}

void DeviceLogIndex::flush() {
    PMutexLocker lock(mutex_);
    if (!thread_) return;
    const std::uint64_t wanted = ++flushRequested_;
    mutex_.broadcast();
    while (flushDone_ < wanted && !stop_) mutex_.wait();
}

// ---- Writer side: committing ----

void* DeviceLogIndex::run(void*) {
    for (;;) {
        std::vector<Snapshot> batch;
        std::vector<SeriesSample> samples;
        std::uint64_t flushing = 0;
        bool stopping = false;
        {
            PMutexLocker lock(mutex_);
            const auto deadline =
                std::chrono::steady_clock::now() + std::chrono::milliseconds(kCommitIntervalMs);
            while (!stop_ && flushRequested_ == flushDone_ &&
                   std::chrono::steady_clock::now() < deadline) {
                mutex_.waitUntil(deadline);
            }
            stopping = stop_;
            flushing = flushRequested_;
            takeSnapshotLocked(batch);
            samples.swap(samples_);
        }
        if (!batch.empty() || !samples.empty()) commit(batch, samples);
        PMutexLocker lock(mutex_);
        flushDone_ = flushing;
        mutex_.broadcast();
        if (stopping) break;
    }
    return nullptr;
}

void DeviceLogIndex::takeSnapshotLocked(std::vector<Snapshot>& batch) {
    if (!dirty_) return;
    std::map<std::string, std::size_t> at;
    auto snapshotOf = [&](const std::string& file) -> Snapshot& {
        const auto found = at.find(file);
        if (found != at.end()) return batch[found->second];
        at[file] = batch.size();
        batch.emplace_back();
        batch.back().file = file;
        return batch.back();
    };
    for (auto& [file, piece] : finished_) snapshotOf(file).pieces.push_back(std::move(piece));
    finished_.clear();
    for (auto& [file, log] : logs_) {
        if (!log->logDirty && !log->pieceDirty && log->historyPaths.empty()) continue;
        Snapshot& snapshot = snapshotOf(file);
        snapshot.generation = log->generation;
        snapshot.fileId = log->fileId;
        snapshot.logDirty = log->logDirty;
        if (log->pieceDirty) snapshot.pieces.push_back(log->piece);
        for (auto& moved : log->historyPaths) snapshot.history.push_back(std::move(moved));
        log->historyPaths.clear();
        log->logDirty = false;
        log->pieceDirty = false;
    }
    dirty_ = false;
}

void DeviceLogIndex::commit(const std::vector<Snapshot>& batch,
                            const std::vector<SeriesSample>& samples) {
    PMutexLocker lock(dbMutex_);
    bool ok = exec("BEGIN");
    Statement log(db_, "UPDATE logs SET generation = ?2, file_id = ?3 WHERE id = ?1");
    Statement history(db_,
                      "INSERT OR REPLACE INTO history(log, generation, path) VALUES(?1, ?2, ?3)");
    Statement piece(db_,
                    "INSERT OR REPLACE INTO pieces(id, log, generation, offset, length, "
                    "first_received, last_received, device_time, clock_offset, first_time, "
                    "last_time, severities, lines, header, source) "
                    "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10, ?11, ?12, ?13, ?14, ?15)");
    for (const Snapshot& snapshot : batch) {
        const std::int64_t logId = logIdOf(snapshot.file);
        if (logId == 0) {
            ok = false;
            continue;
        }
        if (snapshot.logDirty) {
            log.bind(1, logId)
                .bind(2, snapshot.generation)
                .bind(3, static_cast<long long>(snapshot.fileId));
            ok = log.step() == SQLITE_DONE && ok;
            log.reset();
        }
        for (const auto& [generation, path] : snapshot.history) {
            // Kept relative to the logs folder, so that the folder can move.
            const std::string prefix = logsDir_ + "/";
            const bool inside = path.compare(0, prefix.size(), prefix) == 0;
            history.bind(1, logId)
                .bind(2, generation)
                .bind(3, inside ? path.substr(prefix.size()) : path);
            ok = history.step() == SQLITE_DONE && ok;
            history.reset();
        }
        for (const OpenPiece& p : snapshot.pieces) {
            piece.bind(1, p.id).bind(2, logId).bind(3, p.generation);
            piece.bind(4, static_cast<long long>(p.offset))
                .bind(5, static_cast<long long>(p.length));
            piece.bind(6, p.firstReceivedMs).bind(7, p.lastReceivedMs);
            if (p.hasDeviceTime) {
                piece.bind(8, p.deviceTime);
            } else {
                piece.bindNull(8);
            }
            piece.bind(9, p.clockOffset).bind(10, p.firstTime).bind(11, p.lastTime);
            piece.bind(12, p.severities).bind(13, p.lines).bind(14, p.header ? 1 : 0);
            piece.bind(15, sourceIdOf(p.source));
            ok = piece.step() == SQLITE_DONE && ok;
            piece.reset();
        }
    }
    if (!samples.empty()) ok = writeSamples(samples) && ok;
    ok = exec("COMMIT") && ok;
    if (!ok) {
        exec("ROLLBACK");
        // Columns added in the transaction went with it.
        seriesColumnsRead_ = false;
        seriesColumns_.clear();
        report(std::string("cannot write the index: ") + sqlite3_errmsg(db_));
    }
}

std::int64_t DeviceLogIndex::logIdOf(const std::string& file) {
    const auto found = logIds_.find(file);
    if (found != logIds_.end()) return found->second;
    Statement insert(db_, "INSERT OR IGNORE INTO logs(file) VALUES(?1)");
    insert.bind(1, file).step();
    Statement select(db_, "SELECT id FROM logs WHERE file = ?1");
    if (select.bind(1, file).step() != SQLITE_ROW) return 0;
    return logIds_[file] = select.integer(0);
}

std::int64_t DeviceLogIndex::sourceIdOf(const Identity& source) {
    const std::string key = source.deviceId + '\n' + source.mac + '\n' + source.displayName + '\n' +
                            source.caller + '\n' + source.account + '\n' + source.peer;
    const auto found = sourceIds_.find(key);
    if (found != sourceIds_.end()) return found->second;
    Statement insert(db_,
                     "INSERT OR IGNORE INTO sources(device_id, mac, display_name, caller, account, "
                     "peer) VALUES(?1, ?2, ?3, ?4, ?5, ?6)");
    insert.bind(1, source.deviceId).bind(2, source.mac).bind(3, source.displayName);
    insert.bind(4, source.caller).bind(5, source.account).bind(6, source.peer).step();
    Statement select(db_,
                     "SELECT id FROM sources WHERE device_id = ?1 AND mac = ?2 AND "
                     "display_name = ?3 AND caller = ?4 AND account = ?5 AND peer = ?6");
    select.bind(1, source.deviceId).bind(2, source.mac).bind(3, source.displayName);
    select.bind(4, source.caller).bind(5, source.account).bind(6, source.peer);
    if (select.step() != SQLITE_ROW) return 0;
    return sourceIds_[key] = select.integer(0);
}

bool DeviceLogIndex::exec(const char* sql) const {
    return sqlite3_exec(db_, sql, nullptr, nullptr, nullptr) == SQLITE_OK;
}

void DeviceLogIndex::report(const std::string& what) {
    const long long now = nowMs();
    if (now < reportAt_) return;
    reportAt_ = now + kReportIntervalMs;
    CBBLog::error("Index: %s", what.c_str());
}

// ---- Reconciliation with the files ----

void DeviceLogIndex::loadLocked() {
    Statement maxId(db_, "SELECT COALESCE(MAX(id), 0) FROM pieces");
    if (maxId.step() == SQLITE_ROW) nextPieceId_ = maxId.integer(0) + 1;
    Statement select(db_, "SELECT file, generation, file_id FROM logs");
    while (select.step() == SQLITE_ROW) {
        LogState& log = stateLocked(select.text(0));
        log.generation = select.integer(1);
        log.fileId = static_cast<std::uint64_t>(select.integer(2));
        log.logDirty = false;
    }
}

void DeviceLogIndex::reconcile() {
    std::set<std::string> known;
    {
        PMutexLocker lock(mutex_);
        PMutexLocker db(dbMutex_);
        loadLocked();
        for (const auto& entry : logs_) known.insert(entry.first);
    }
    for (const std::string& file : known) reconcileLog(file);
    // Logs written after the last commit before a crash, which the index never knew.
    for (const std::string& file : deviceLogFiles()) {
        if (known.count(file) == 0) indexWholeLog(file);
    }
    flushNow();
}

void DeviceLogIndex::reconcileLog(const std::string& file) {
    const std::string path = logsDir_ + "/" + file;
    struct stat current {};
    struct stat backup {};
    const bool hasCurrent = lstat(path.c_str(), &current) == 0 && S_ISREG(current.st_mode);
    const bool hasBackup = lstat((path + RotatingLogFile::kBackupSuffix).c_str(), &backup) == 0 &&
                           S_ISREG(backup.st_mode);
    std::int64_t generation = 0;
    std::uint64_t indexedEnd = 0;
    {
        PMutexLocker lock(mutex_);
        LogState& log = stateLocked(file);
        if (hasBackup && logFileIdOf(backup) == log.fileId && log.fileId != 0) {
            ++log.generation;  // rotated while no collector ran: the known file is the backup
            log.fileId = hasCurrent ? logFileIdOf(current) : 0;
            log.logDirty = true;
        } else if (!hasCurrent || logFileIdOf(current) != log.fileId) {
            ++log.generation;
            log.fileId = hasCurrent ? logFileIdOf(current) : 0;
            log.logDirty = true;
        }
        generation = log.generation;
        dirty_ = true;
    }
    {
        PMutexLocker db(dbMutex_);
        const std::int64_t logId = logIdOf(file);
        // Nothing may point past the end of the bytes that are there.
        Statement drop(
            db_, "DELETE FROM pieces WHERE log = ?1 AND generation = ?2 AND offset + length > ?3");
        drop.bind(1, logId)
            .bind(2, generation)
            .bind(3, hasCurrent ? static_cast<long long>(current.st_size) : 0);
        drop.step();
        Statement dropBack(
            db_, "DELETE FROM pieces WHERE log = ?1 AND generation = ?2 AND offset + length > ?3");
        dropBack.bind(1, logId)
            .bind(2, generation - 1)
            .bind(3, hasBackup ? static_cast<long long>(backup.st_size) : 0);
        dropBack.step();
        Statement end(db_,
                      "SELECT COALESCE(MAX(offset + length), 0) FROM pieces WHERE log = ?1 AND "
                      "generation = ?2");
        if (end.bind(1, logId).bind(2, generation).step() == SQLITE_ROW)
            indexedEnd = static_cast<std::uint64_t>(end.integer(0));
    }
    if (hasCurrent && indexedEnd < static_cast<std::uint64_t>(current.st_size))
        indexFileText(file, generation, path, indexedEnd);
}

void DeviceLogIndex::rebuild() {
    {
        PMutexLocker lock(mutex_);
        PMutexLocker db(dbMutex_);
        exec("DELETE FROM pieces; DELETE FROM history; DELETE FROM logs; DELETE FROM sources;");
        logs_.clear();
        finished_.clear();
        logIds_.clear();
        sourceIds_.clear();
        nextPieceId_ = 1;
    }
    for (const std::string& file : deviceLogFiles()) indexWholeLog(file);
    flushNow();
}

std::vector<std::string> DeviceLogIndex::deviceLogFiles() const {
    std::vector<std::string> files;
    std::set<std::string> seen;  // a log and its backup name one log
    DIR* folder = opendir(logsDir_.c_str());
    if (folder == nullptr) return files;
    const std::string suffix = RotatingLogFile::kBackupSuffix;
    while (const dirent* entry = readdir(folder)) {
        const std::string name = entry->d_name;
        if (name.empty() || name[0] == '.') continue;
        const bool isBackup = name.size() > suffix.size() &&
                              name.compare(name.size() - suffix.size(), suffix.size(), suffix) == 0;
        const std::string base = isBackup ? name.substr(0, name.size() - suffix.size()) : name;
        const std::string path = logsDir_ + "/" + name;
        struct stat info {};
        if (lstat(path.c_str(), &info) != 0 || !S_ISREG(info.st_mode) || !looksLikeDeviceLog(path))
            continue;
        if (seen.insert(base).second) files.push_back(base);
    }
    closedir(folder);
    return files;
}

// A log the index does not know: its history generations, oldest first, then its backup
// and its file get the generations 0, 1, 2 ...
void DeviceLogIndex::indexWholeLog(const std::string& file) {
    const std::string path = logsDir_ + "/" + file;
    struct stat current {};
    const bool hasCurrent = lstat(path.c_str(), &current) == 0 && S_ISREG(current.st_mode);
    const auto history = historyOf(file);
    const std::int64_t backup = static_cast<std::int64_t>(history.size());
    {
        PMutexLocker lock(mutex_);
        LogState& log = stateLocked(file);
        log.generation = backup + 1;
        log.fileId = hasCurrent ? logFileIdOf(current) : 0;
        log.logDirty = true;
        for (std::size_t g = 0; g < history.size(); ++g)
            log.historyPaths.emplace_back(static_cast<std::int64_t>(g), history[g].first);
        dirty_ = true;
    }
    for (std::size_t g = 0; g < history.size(); ++g) {
        std::string text;
        struct stat info {};
        const std::string name = history[g].second ? history[g].first + ".zst" : history[g].first;
        const long long modified = stat(name.c_str(), &info) == 0 ? info.st_mtime : nowMs() / 1000;
        if (readGeneration(history[g].first, history[g].second, text))
            indexText(file, static_cast<std::int64_t>(g), text, 0, modified);
    }
    indexFileText(file, backup, path + RotatingLogFile::kBackupSuffix, 0);
    if (hasCurrent) indexFileText(file, backup + 1, path, 0);
}

// Indexes the bytes of `path` (generation `generation` of `file`) from `from` on, in
// pieces of whole lines; times from the stamps, else the file's modification time.
void DeviceLogIndex::indexFileText(const std::string& file, std::int64_t generation,
                                   const std::string& path, std::uint64_t from) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return;
    struct stat info {};
    const long long modified = stat(path.c_str(), &info) == 0 ? info.st_mtime : nowMs() / 1000;
    in.seekg(static_cast<std::streamoff>(from));
    std::ostringstream text;
    text << in.rdbuf();
    indexText(file, generation, text.str(), from, modified);
}

// Pieces of whole lines (a file's first header line a piece of its own), at most
// kMaxPieceBytes each, from `offset` on.
void DeviceLogIndex::indexText(const std::string& file, std::int64_t generation,
                               std::string_view text, std::uint64_t offset, long long modified) {
    auto add = [&](std::string_view part, bool isHeader) {
        if (part.empty()) return;
        const DeviceLogLines::Summary summary = DeviceLogLines::summarize(part, modified);
        OpenPiece piece;
        piece.generation = generation;
        piece.offset = offset;
        piece.length = part.size();
        piece.firstReceivedMs = piece.lastReceivedMs = modified * 1000;
        piece.firstTime = summary.lines != 0 ? summary.firstTime : modified;
        piece.lastTime = summary.lines != 0 ? summary.lastTime : modified;
        piece.severities = summary.severities;
        piece.lines = summary.lines;
        piece.header = isHeader;
        PMutexLocker lock(mutex_);
        piece.id = nextPieceId_++;
        finished_.emplace_back(file, piece);
        dirty_ = true;
        offset += part.size();
    };
    if (offset == 0 && text.substr(0, 7) == "\n===== ") {
        const std::size_t headerEnd = text.find('\n', 1);
        const std::size_t take = headerEnd == std::string_view::npos ? text.size() : headerEnd + 1;
        add(text.substr(0, take), true);
        text.remove_prefix(take);
    }
    while (!text.empty()) {
        std::size_t take = std::min<std::size_t>(text.size(), kMaxPieceBytes);
        if (take < text.size()) {
            const std::size_t lastBreak = text.rfind('\n', take - 1);
            if (lastBreak != std::string_view::npos) take = lastBreak + 1;
        }
        add(text.substr(0, take), false);
        text.remove_prefix(take);
    }
}

// The generations the history keeps of `file`, oldest first: their plain names (a
// reader takes either name) and whether they are compressed.
std::vector<std::pair<std::string, bool>> DeviceLogIndex::historyOf(const std::string& file) const {
    std::vector<std::pair<std::string, bool>> generations;
    const std::string folder = logsDir_ + "/" + kFolderName + "/" + file;
    DIR* listing = opendir(folder.c_str());
    if (listing == nullptr) return generations;
    std::map<std::string, bool> found;
    const std::string zst = ".zst";
    while (const dirent* entry = readdir(listing)) {
        std::string name = entry->d_name;
        if (name.empty() || name[0] == '.' || name.find(".tmp") != std::string::npos) continue;
        const bool compressed = name.size() > zst.size() &&
                                name.compare(name.size() - zst.size(), zst.size(), zst) == 0;
        if (compressed) name.resize(name.size() - zst.size());
        found[name] = found[name] || compressed;
    }
    closedir(listing);
    for (const auto& [name, compressed] : found)
        generations.emplace_back(folder + "/" + name, compressed);
    return generations;
}

// The whole text of a history generation, compressed or not.
bool DeviceLogIndex::readGeneration(const std::string& path, bool compressed, std::string& text) {
    const std::string name = compressed ? path + ".zst" : path;
    const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
    if (fd == -1) return false;
    struct stat info {};
    bool ok = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
    std::string error;
    if (ok && compressed) {
        std::vector<DeviceLogHistoryFrames::Frame> frames;
        ok = DeviceLogHistoryFrames::readIndex(fd, static_cast<std::uint64_t>(info.st_size), frames,
                                               error) &&
             DeviceLogHistoryFrames::readRange(
                 fd, frames, 0, DeviceLogHistoryFrames::rawSize(frames), text, error);
    } else if (ok) {
        text.resize(static_cast<std::size_t>(info.st_size));
        ok = pread(fd, &text[0], text.size(), 0) == static_cast<ssize_t>(text.size());
    }
    close(fd);
    return ok;
}

void DeviceLogIndex::flushNow() {
    std::vector<Snapshot> batch;
    {
        PMutexLocker lock(mutex_);
        takeSnapshotLocked(batch);
    }
    if (!batch.empty()) commit(batch, {});
}

// ---- Reader side ----

namespace {
// Line times a piece spans in most cases (s): pieces grow over at most 5 minutes of receive
// times, and a device's stamps rarely spread wider.
constexpr long long kShortSpan = 86400;
}  // namespace

std::string DeviceLogIndex::pathOf(const std::string& file, std::int64_t generation,
                                   std::int64_t current, const std::string& historyPath) const {
    if (generation == current) return logsDir_ + "/" + file;
    if (generation == current - 1) return logsDir_ + "/" + file + RotatingLogFile::kBackupSuffix;
    // Relative to the logs folder; an older index kept the whole path.
    if (!historyPath.empty() && historyPath[0] != '/') return logsDir_ + "/" + historyPath;
    return historyPath;
}

std::vector<DeviceLogIndex::Piece> DeviceLogIndex::query(const Query& q) const {
    PMutexLocker lock(dbMutex_);
    std::string sql =
        "SELECT p.id, l.file, p.generation, l.generation, p.offset, p.length, p.first_received, "
        "p.last_received, p.device_time, p.clock_offset, p.first_time, p.last_time, "
        "p.severities, p.lines, p.header, COALESCE(h.path, ''), l.file_id, ";
    sql += q.withSource ? "s.device_id, s.mac, s.display_name, s.caller, s.account, s.peer "
                          "FROM pieces p JOIN logs l ON l.id = p.log "
                          "LEFT JOIN sources s ON s.id = p.source "
                        : "0 FROM pieces p JOIN logs l ON l.id = p.log ";
    sql += "LEFT JOIN history h ON h.log = p.log AND h.generation = p.generation WHERE 1";
    if (q.since != 0 && q.until != 0) {
        // A range: the pieces starting at most kShortSpan before it, through the index of
        // first times, and the few that span longer, through the index of spans, of which
        // those that overlap it. ("+" keeps SQLite from taking a one-sided bound for the
        // index instead, which would read half the pieces.)
        const std::string span = std::to_string(kShortSpan);
        sql += " AND +p.last_time >= ?1 AND ((p.first_time >= ?1 - " + span +
               " AND p.first_time < ?2) OR (p.last_time - p.first_time > " + span +
               " AND +p.first_time < ?2))";
    } else if (q.since != 0) {
        sql += " AND p.last_time >= ?1";
    } else if (q.until != 0) {
        sql += " AND p.first_time < ?2";
    }
    if (q.severities != 0) sql += " AND (p.severities & ?3) != 0";
    if (!q.file.empty()) sql += " AND l.file = ?4";
    // Up to kMaxQueryFiles files are asked for by name; more are not filtered here.
    const bool someFiles = !q.files.empty() && q.files.size() <= kMaxQueryFiles;
    if (someFiles) {
        sql += " AND l.file IN (";
        for (std::size_t i = 0; i < q.files.size(); ++i)
            sql += (i == 0 ? "?" : ", ?") + std::to_string(7 + i);
        sql += ")";
    }
    if (!q.device.empty()) {
        sql +=
            " AND (s.device_id = ?5 OR s.display_name = ?5 OR s.mac = ?5 OR "
            "substr(l.file, 1, length(?5)) = ?5)";
    }
    if (q.headersOnly) sql += " AND p.header = 1";
    if (q.fromId > 0) sql += " AND p.id >= " + std::to_string(q.fromId);
    // With a filter an index serves (time, file, headers), the few pieces it finds are
    // sorted afterwards: "+" keeps SQLite from scanning a whole index for its order instead.
    const bool selective = q.since != 0 || q.until != 0 || q.headersOnly || !q.file.empty() ||
                           someFiles || q.fromId > 0;
    const char* const plus = selective ? "+" : "";
    if (q.order == Order::Id) {
        sql += " ORDER BY p.id";
    } else {
        sql += q.order == Order::Time
                   ? std::string(" ORDER BY ") + plus + "p.first_time, p.id"
                   : std::string(" ORDER BY ") + plus + "p.log, p.generation, p.offset";
    }
    sql += " LIMIT ?6";
    Statement select(db_, sql.c_str());
    if (q.since != 0) select.bind(1, q.since);
    if (q.until != 0) select.bind(2, q.until);
    if (q.severities != 0) select.bind(3, q.severities);
    if (!q.file.empty()) select.bind(4, q.file);
    if (!q.device.empty()) select.bind(5, q.device);
    select.bind(6, static_cast<long long>(q.limit));
    if (someFiles) {
        for (std::size_t i = 0; i < q.files.size(); ++i)
            select.bind(static_cast<int>(7 + i), q.files[i]);
    }
    std::vector<Piece> pieces;
    while (select.step() == SQLITE_ROW) {
        Piece p;
        p.id = select.integer(0);
        p.file = select.text(1);
        p.generation = select.integer(2);
        p.path = pathOf(p.file, p.generation, select.integer(3), select.text(15));
        p.offset = static_cast<std::uint64_t>(select.integer(4));
        p.length = static_cast<std::uint64_t>(select.integer(5));
        p.firstReceivedMs = select.integer(6);
        p.lastReceivedMs = select.integer(7);
        p.hasDeviceTime = !select.isNull(8);
        p.deviceTime = select.integer(8);
        p.clockOffset = select.integer(9);
        p.firstTime = select.integer(10);
        p.lastTime = select.integer(11);
        p.severities = static_cast<std::uint16_t>(select.integer(12));
        p.lines = static_cast<std::uint32_t>(select.integer(13));
        p.header = select.integer(14) != 0;
        if (p.generation == select.integer(3))
            p.currentFileId = static_cast<std::uint64_t>(select.integer(16));
        if (q.withSource) {
            p.source = {select.text(17), select.text(18), select.text(19),
                        select.text(20), select.text(21), select.text(22)};
        }
        pieces.push_back(std::move(p));
    }
    return pieces;
}

std::vector<DeviceLogIndex::LogInfo> DeviceLogIndex::logs(bool totals) const {
    PMutexLocker lock(dbMutex_);
    // The source of a log's last piece, found through the pieces' place index.
    const std::string latest =
        "LEFT JOIN sources s ON s.id = (SELECT source FROM pieces WHERE log = l.id ORDER BY "
        "generation DESC, offset DESC LIMIT 1) ";
    const std::string sql =
        totals ? "SELECT l.file, l.generation, s.device_id, s.mac, s.display_name, s.caller, "
                 "s.account, s.peer, COUNT(p.id), COALESCE(SUM(p.length), 0), "
                 "COALESCE(MIN(p.first_time), 0), COALESCE(MAX(p.last_time), 0) FROM logs l " +
                     latest + "LEFT JOIN pieces p ON p.log = l.id GROUP BY l.id ORDER BY l.file"
               : "SELECT l.file, l.generation, s.device_id, s.mac, s.display_name, s.caller, "
                 "s.account, s.peer FROM logs l " +
                     latest + "ORDER BY l.file";
    Statement select(db_, sql.c_str());
    std::vector<LogInfo> result;
    while (select.step() == SQLITE_ROW) {
        LogInfo info;
        info.file = select.text(0);
        info.generation = select.integer(1);
        info.source = {select.text(2), select.text(3), select.text(4),
                       select.text(5), select.text(6), select.text(7)};
        if (totals) {
            info.pieces = static_cast<std::uint64_t>(select.integer(8));
            info.bytes = static_cast<std::uint64_t>(select.integer(9));
            info.firstTime = select.integer(10);
            info.lastTime = select.integer(11);
        }
        result.push_back(std::move(info));
    }
    return result;
}

std::int64_t DeviceLogIndex::lastPieceId() const {
    PMutexLocker lock(dbMutex_);
    Statement maxId(db_, "SELECT COALESCE(MAX(id), 0) FROM pieces");
    return maxId.step() == SQLITE_ROW ? maxId.integer(0) : 0;
}

std::uint64_t DeviceLogIndex::sizeBytes() const {
    std::uint64_t total = 0;
    for (const char* suffix : {"", "-wal"}) {
        struct stat info {};
        if (stat((pathFor(logsDir_) + suffix).c_str(), &info) == 0)
            total += static_cast<std::uint64_t>(info.st_size);
    }
    return total;
}
