// SPDX-License-Identifier: MIT
#include "LogsIndex.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ostream>
#include <vector>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// SQLite's locks in the "-shm" file of a WAL database: eight lock bytes from offset 120,
// then the dead-man switch that every open connection holds shared.
constexpr off_t kShmLocksStart = 120;
constexpr off_t kShmLocksLength = 9;

std::string errorText(int error) {
    char buffer[256];
    return strerror_r(error, buffer, sizeof(buffer));
}

// Whether the database at `path` opens read-only and its tables read; `error` says why not.
bool tablesRead(const std::string& path, std::string& error) {
    sqlite3* db = nullptr;
    bool ok = sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY | SQLITE_OPEN_NOFOLLOW,
                              nullptr) == SQLITE_OK;
    if (ok) {
        sqlite3_busy_timeout(db, 5000);
        sqlite3_stmt* statement = nullptr;
        ok = sqlite3_prepare_v2(db,
                                "SELECT (SELECT 1 FROM pieces LIMIT 1), (SELECT 1 FROM logs "
                                "LIMIT 1), (SELECT 1 FROM sources LIMIT 1), (SELECT 1 FROM "
                                "history LIMIT 1)",
                                -1, &statement, nullptr) == SQLITE_OK;
        if (ok) {
            const int step = sqlite3_step(statement);
            ok = step == SQLITE_ROW || step == SQLITE_DONE;
        }
        sqlite3_finalize(statement);
    }
    if (!ok) error = db != nullptr ? sqlite3_errmsg(db) : "out of memory";
    sqlite3_close(db);
    return ok;
}

// Renames `from` to `to` when it exists; false with errno set on another failure.
bool renameIfThere(const std::string& from, const std::string& to) {
    return std::rename(from.c_str(), to.c_str()) == 0 || errno == ENOENT;
}

}  // namespace

namespace LogsIndex {

std::unique_ptr<DeviceLogIndex> openForReading(const std::string& logsDir, std::string& error) {
    const std::string path = DeviceLogIndex::pathFor(logsDir);
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) {
        error = errno == ENOENT ? "no index at " + path +
                                      ": the collector has not written any log yet, or run "
                                      "nimb-logs --reindex"
                                : "cannot read the index at " + path + ": " + errorText(errno);
        return nullptr;
    }
    std::string reason;
    if (!S_ISREG(info.st_mode) || !tablesRead(path, reason)) {
        if (reason.empty()) reason = "not a regular file";
        error = "cannot read the index at " + path + ": " + reason +
                " (nimb-logs --reindex builds it again)";
        return nullptr;
    }
    std::unique_ptr<DeviceLogIndex> index = DeviceLogIndex::openForReading(logsDir, reason);
    if (!index) error = reason;
    return index;
}

long long openedBy(const std::string& logsDir) {
    const std::string shm = DeviceLogIndex::pathFor(logsDir) + "-shm";
    const int fd = open(shm.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return 0;  // no connection has the database open in WAL mode
    struct flock lock {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = kShmLocksStart;
    lock.l_len = kShmLocksLength;
    const bool asked = fcntl(fd, F_GETLK, &lock) == 0;
    close(fd);  // this process holds no lock on the file, so closing releases nothing
    if (!asked || lock.l_type == F_UNLCK) return 0;
    return lock.l_pid > 0 ? lock.l_pid : -1;
}

int reindex(const std::string& logsDir, std::ostream& out, std::ostream& err) {
    struct stat info {};
    const int statError = stat(logsDir.c_str(), &info) != 0 ? errno : 0;
    if (statError != 0 || !S_ISDIR(info.st_mode)) {
        err << "nimb-logs: cannot read folder " << logsDir << ": "
            << errorText(statError != 0 ? statError : ENOTDIR) << '\n';
        return 1;
    }
    const std::string path = DeviceLogIndex::pathFor(logsDir);
    if (const long long pid = openedBy(logsDir); pid != 0) {
        err << "nimb-logs: the index " << path << " is open in "
            << (pid > 0 ? "process " + std::to_string(pid) : std::string("another process"))
            << " (the collector is running, or nimb-web or another nimb-logs reads it): stop "
               "it first\n";
        return 1;
    }
    // The old database (and what its write-ahead log holds) is kept until the new one is
    // complete.
    const std::string aside = path + ".old";
    if (!renameIfThere(path, aside) || !renameIfThere(path + "-wal", aside + "-wal")) {
        err << "nimb-logs: cannot move " << path << " aside: " << errorText(errno) << '\n';
        renameIfThere(aside, path);
        return 1;
    }
    std::remove((path + "-shm").c_str());
    std::string error;
    std::unique_ptr<DeviceLogIndex> index = DeviceLogIndex::openForWriting(logsDir, error);
    if (!index) {
        err << "nimb-logs: cannot rebuild the index: " << error << '\n';
        std::remove(path.c_str());
        std::remove((path + "-wal").c_str());
        std::remove((path + "-shm").c_str());
        renameIfThere(aside, path);
        renameIfThere(aside + "-wal", path + "-wal");
        return 1;
    }
    std::uint64_t pieces = 0;
    const std::vector<DeviceLogIndex::LogInfo> logs = index->logs();
    for (const DeviceLogIndex::LogInfo& log : logs) pieces += log.pieces;
    index.reset();  // commits and closes
    for (const char* suffix : {"", "-wal", "-shm"}) std::remove((aside + suffix).c_str());
    out << "rebuilt the index " << path << ": " << logs.size() << " logs, " << pieces
        << " pieces\n";
    return 0;
}

}  // namespace LogsIndex
