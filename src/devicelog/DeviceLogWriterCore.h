// SPDX-License-Identifier: MIT
// DeviceLogWriterCore: the state DeviceLogWriter and its handles share: the logs by file
// name, the queue of logs with text waiting, the cache of open files and the writer
// threads. Internal to the device-log library. Every member is guarded by mutex_, except
// what a log's writer owns while it holds the log (DeviceLogState's "writer" part).
#pragma once

#include <cstddef>
#include <deque>
#include <list>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "CBBLogSink.h"
#include "DeviceLogIndex.h"
#include "DeviceLogWriter.h"
#include "PCondMutex.h"
#include "RotatingLogFile.h"
#include "StdString.h"
#include "ThreadAnnotations.h"

class PThread;

struct DeviceLogItem {
    CStdStr text;
    std::shared_ptr<LogWriteListener> listener;
    LogTextInfo info;
    // The log's source from this item on (an item that carries one has no text).
    std::shared_ptr<const DeviceLogIndex::Identity> identity;
};

// One device log: its file, its queue and its place in the cache.
struct DeviceLogState {
    DeviceLogState(std::string name, CStdStr fullPath, CStdStr shortLogName)
        : fileName(std::move(name)),
          path(std::move(fullPath)),
          shortName(std::move(shortLogName)) {}

    // Immutable after construction.
    const std::string fileName;
    const CStdStr path;
    const CStdStr shortName;  // names the log in reports

    // Guarded by the core's mutex_.
    int handles = 0;
    std::vector<DeviceLogItem> pending;
    bool ready = false;  // listed in the core's ready queue
    bool busy = false;   // a writer holds the log (and owns the part below)
    bool openedBefore = false;
    bool inCache = false;  // listed in the core's cache (its file is open)
    std::list<DeviceLogState*>::iterator cachePlace;

    // The writer's part: touched by the writer that set `busy`, or under the core's
    // mutex_ while the log is not busy (the cache closes idle files).
    int fd = -1;
    LogFileState file;
    bool failing = false;           // the last batch failed
    long long failureReportAt = 0;  // no new failure report before this (ms)
    std::size_t unreportedFailures = 0;
};

class DeviceLogWriterCore {
public:
    explicit DeviceLogWriterCore(DeviceLogWriter::Options options);
    DeviceLogWriterCore(const DeviceLogWriterCore&) = delete;
    DeviceLogWriterCore& operator=(const DeviceLogWriterCore&) = delete;
    ~DeviceLogWriterCore();

    // Starts the threads; throws std::runtime_error when none could be started.
    void start();
    // Writes everything queued, stops the threads and closes every file. Idempotent.
    void stop();

    // The log of `fileName`, with one more handle on it.
    DeviceLogState* acquire(const std::string& fileName);
    // One handle fewer; the log is forgotten once it has none and nothing waiting.
    void release(DeviceLogState* log);
    // Queues a text; false when stopped.
    bool append(DeviceLogState& log, DeviceLogItem item);
    void drain();
    DeviceLogWriter::Stats stats() const;

private:
    // One log's batch taken by a writer, and what became of it.
    struct Failure {
        std::size_t from = 0, to = 0;  // items [from, to) failed
        int error = 0;
        CStdStr message;
    };
    struct Batch {
        DeviceLogState* log = nullptr;
        bool wasOpen = false;
        std::vector<DeviceLogItem> items;
        std::vector<Failure> failures;
    };

    void* run(void*);
    // Takes up to kLogsPerRound ready logs into `round`, making room in the cache for
    // those whose files are closed. Blocks until there is work; false once stopped.
    bool takeRound(std::vector<Batch>& round);
    void makeRoomLocked() NIMB_REQUIRES(mutex_);
    void closeFileLocked(DeviceLogState& log) NIMB_REQUIRES(mutex_);
    void finishRound(std::vector<Batch>& round);
    void complete(std::vector<Batch>& round);

    // Writer side (the log is busy).
    void writeBatch(Batch& batch);
    // Tells the index about items [first, end) written from `offset` on.
    void recordWritten(DeviceLogState& log, std::vector<DeviceLogItem>& items, std::size_t first,
                       std::size_t end, long long offset);
    int prepareFile(DeviceLogState& log, long long& size);
    int openFile(DeviceLogState& log);
    void noteOutcome(DeviceLogState& log, int error, const CStdStr& message, std::size_t texts);
    void reportRotationFailure(DeviceLogState& log);
    CStdStr failureMessage(const DeviceLogState& log, const char* action, int error) const;

    // Immutable after construction.
    const DeviceLogWriter::Options options_;

    mutable PCondMutex mutex_;
    bool stopping_ NIMB_GUARDED_BY(mutex_) = false;
    bool stopped_ NIMB_GUARDED_BY(mutex_) = false;
    std::unordered_map<std::string, std::unique_ptr<DeviceLogState>> logs_ NIMB_GUARDED_BY(mutex_);
    std::deque<DeviceLogState*> ready_ NIMB_GUARDED_BY(mutex_);
    std::list<DeviceLogState*> cache_ NIMB_GUARDED_BY(mutex_);  // open files, idlest first
    std::size_t openFiles_ NIMB_GUARDED_BY(mutex_) = 0;
    std::size_t opening_ NIMB_GUARDED_BY(mutex_) = 0;  // taken by writers with the file closed
    std::size_t queued_ NIMB_GUARDED_BY(mutex_) = 0;   // texts queued and not yet told
    std::size_t reopened_ NIMB_GUARDED_BY(mutex_) = 0;
    int waiting_ NIMB_GUARDED_BY(mutex_) = 0;        // writers waiting for work
    int running_ NIMB_GUARDED_BY(mutex_) = 0;        // writers not yet ended
    std::vector<std::unique_ptr<PThread>> threads_;  // started by start(), joined by stop()
};
