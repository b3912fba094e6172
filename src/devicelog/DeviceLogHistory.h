// SPDX-License-Identifier: MIT
// DeviceLogHistory: older generations of the device logs. When a rotation is about to
// replace a log's ".back", the writer hands that file to keep(), which moves it into
// the history folder of the logs folder ("history/<file name>/<UTC time>Z-<sequence>")
// by one rename; a thread of the store's own then compresses it into independent zstd
// frames ("<name>.zst", docs/history.md) and removes the oldest generations, those of
// the logs holding the most first, to stay within a byte budget, an age limit and a
// free-space floor. read() serves any range of a generation, compressed or not yet.
// Owned by the collector, next to the writer. keep() runs on a writer thread under the
// rotation lock and does only the rename; stats(), list(), read(), trim() and drain()
// may be called from any thread; the store's thread compresses and trims.
// Errors: nothing here throws after construction. A file that cannot be moved stays
// where it was (keep() returns ""); a failed compression leaves the plain file in the
// history and is reported in the process's log; removals are logged at a bounded rate.
// Never follows a symbolic link inside the history folder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "PCondMutex.h"
#include "ThreadAnnotations.h"

class PThread;

class DeviceLogHistory {
public:
    // The history folder's name inside the logs folder.
    static constexpr const char* kFolderName = "history";
    // Suffix of a compressed generation, and of one being compressed.
    static constexpr const char* kCompressedSuffix = ".zst";
    static constexpr const char* kTempSuffix = ".zst.tmp";
    // Budget when none is set: this share of the file system, at most kDefaultMaxBytes.
    static constexpr int kDefaultBudgetPercent = 10;
    static constexpr long long kDefaultMaxBytes = 8LL << 30;
    // Bounds of the uncompressed size of one frame.
    static constexpr std::size_t kMinFrameBytes = 64 * 1024;
    static constexpr std::size_t kMaxFrameBytes = 256 * 1024;
    // The thread trims at least this often (ms), besides after every compression.
    static constexpr long long kTrimIntervalMs = 3600 * 1000;
    // Removals logged one by one in one pass; the rest are summed up in one line.
    static constexpr int kLoggedRemovalsPerPass = 10;

    struct Options {
        std::string logsDir;     // the logs folder (no trailing "/")
        long long maxBytes = 0;  // byte budget; 0 (or less): the default above
        int maxAgeDays = 90;     // generations moved longer ago are removed; 0: no limit
        int minFreePercent = 5;  // history is trimmed while the file system has less free
        std::size_t frameBytes = 128 * 1024;  // kept within kMinFrameBytes..kMaxFrameBytes
    };

    // Counts for the collector's statistics and the tests.
    struct Stats {
        std::uint64_t bytes = 0;            // size of the history's files on disk
        std::uint64_t files = 0;            // generations held
        std::uint64_t removedFiles = 0;     // generations removed by retention
        std::uint64_t removedBytes = 0;     // and their size
        std::uint64_t compressedFiles = 0;  // compressions completed
    };

    // One generation.
    struct Entry {
        std::string path;                   // its file now (".zst" once compressed)
        std::string fileName;               // the log it belonged to
        std::uint64_t rawBytes = 0;         // uncompressed size
        std::uint64_t compressedBytes = 0;  // 0 until compressed
        long long movedAt = 0;              // when keep() moved it (UTC seconds)
    };

    // Creates the history folder when missing and takes stock of it: a temporary file
    // of a compression that was cut short is removed, a plain file next to its complete
    // ".zst" is removed, and every plain file is queued for compression. Then starts
    // the thread. Throws std::runtime_error when the thread cannot be started.
    explicit DeviceLogHistory(Options options);
    DeviceLogHistory(const DeviceLogHistory&) = delete;
    DeviceLogHistory& operator=(const DeviceLogHistory&) = delete;
    // Finishes the compression in progress and stops the thread; queued files stay
    // plain and are compressed after the next start.
    ~DeviceLogHistory();

    // Moves `backupPath`, the ".back" of the log file `fileName` (a plain name, as the
    // writer's), into the history with rename(2) and queues its compression. Returns
    // the generation's path, or "" when it was not moved (not a regular file, another
    // file system, a folder that cannot be made): the caller then replaces it as before.
    // Cheap: made for a writer thread holding its rotation lock.
    std::string keep(const std::string& fileName, const std::string& backupPath);

    Stats stats() const;

    // One retention pass now: removes generations older than the age limit, then the
    // oldest of the log holding the most bytes, one at a time, until the history fits
    // its budget and the file system has its free share. The budget counts generations
    // whose compression is over (a burst of plain files waiting for it does not push
    // out history that fits once they are compressed); the free share counts every file.
    // A generation being compressed is left for the next pass.
    void trim();

    // Waits until every compression queued before the call is done.
    void drain();

    // The generations of `fileName` ("": of every log), oldest first.
    std::vector<Entry> list(const std::string& fileName = "") const;

    // Appends to `out` the uncompressed bytes [offset, offset + length) of the
    // generation `historyPath` (a path list() or keep() gave; either name serves before
    // and after its compression), fewer when it ends first. Decompresses only the
    // frames that hold the range. False with `error` set when the path is not a
    // generation of this history or the file cannot be read.
    bool read(const std::string& historyPath, std::uint64_t offset, std::size_t length,
              std::string& out, std::string& error) const;

    // Options from the settings (HistoryMaxMiB, HistoryMaxAgeDays, HistoryMinFreePercent
    // under the collector's key); the defaults for those that are missing.
    static Options optionsFromSettings(const std::string& logsDir);

    // The byte budget `options` give: their maxBytes, else the default share of the file
    // system holding the history folder (the whole cap when it cannot be measured).
    static std::uint64_t budgetOf(const Options& options);

    // The name of a generation moved at `movedAt` (UTC seconds) with sequence `seq`.
    static std::string generationName(long long movedAt, std::uint64_t seq);

private:
    struct Generation {
        std::string name;  // without kCompressedSuffix
        long long movedAt = 0;
        std::uint64_t rawBytes = 0;
        std::uint64_t compressedBytes = 0;  // 0 while plain
        bool pending = false;               // queued for compression or being compressed
        bool busy = false;                  // being compressed
        std::uint64_t diskBytes() const {
            return compressedBytes != 0 ? compressedBytes : rawBytes;
        }
    };
    struct LogHistory {
        std::map<std::uint64_t, Generation> generations;  // by sequence: oldest first
        std::uint64_t bytes = 0;
    };
    struct Job {
        std::string fileName;
        std::uint64_t seq = 0;
    };
    struct Removal;

    void openFolder() NIMB_REQUIRES(mutex_);
    void takeStock() NIMB_REQUIRES(mutex_);
    void* run(void*);
    void compress(const Job& job);
    bool compressFile(int dirFd, const std::string& name, std::uint64_t& rawBytes,
                      std::uint64_t& compressedBytes, std::string& error) const;
    // What a pass removes, given the budget and the bytes the file system lacks; each
    // is forgotten at once, its file removed by the caller.
    void chooseRemovals(std::uint64_t budget, std::uint64_t shortfall,
                        std::vector<Removal>& removals) NIMB_REQUIRES(mutex_);
    void removeLocked(const std::string& fileName, std::uint64_t seq, const char* reason,
                      std::vector<Removal>& removals) NIMB_REQUIRES(mutex_);
    std::uint64_t budget() const;
    std::uint64_t freeShortfall() const;
    int openLogFolder(const std::string& fileName) const;

    const Options options_;
    const std::string historyDir_;
    std::unique_ptr<PThread> thread_;
    PMutex trimMutex_;  // one retention pass at a time
    mutable PCondMutex mutex_;
    int historyFd_ NIMB_GUARDED_BY(mutex_) = -1;
    std::map<std::string, LogHistory> logs_ NIMB_GUARDED_BY(mutex_);
    std::deque<Job> queue_ NIMB_GUARDED_BY(mutex_);
    bool compressing_ NIMB_GUARDED_BY(mutex_) = false;
    bool stopping_ NIMB_GUARDED_BY(mutex_) = false;
    std::uint64_t nextSeq_ NIMB_GUARDED_BY(mutex_) = 1;
    std::uint64_t jobsQueued_ NIMB_GUARDED_BY(mutex_) = 0;  // for drain()
    std::uint64_t jobsDone_ NIMB_GUARDED_BY(mutex_) = 0;
    Stats stats_ NIMB_GUARDED_BY(mutex_);
};
