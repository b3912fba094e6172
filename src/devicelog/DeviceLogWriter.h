// SPDX-License-Identifier: MIT
// DeviceLogWriter: one writer for every device log of the process. A small fixed pool
// of threads serves the queues of all logs: each log keeps its own order and its own
// file, every batch of one log is written with one writev, and each file is rotated by
// the rules of every log file of the suite (size checked before each write, one ".back"
// generation, flock and an inode check so that another process's rotation is noticed).
// Open files form a bounded cache: when it is full the idlest log's file is closed and
// opened again, with the same checks, on that log's next text. A log costs a few
// hundred bytes of state while it has a handle (open()) or text waiting.
// Owned by whoever ingests device logs (the collector); handles may outlive it (their
// texts are then refused). Any thread may queue; the pool's threads write.
// Errors: nothing here throws after construction. A text that cannot be written is
// reported to its listener with the errno and a message naming the file, and at a
// bounded rate in the process's own log (standard error when there is none).
#pragma once

#include <cstddef>
#include <functional>
#include <memory>
#include <string>

#include "CBBLogSink.h"
#include "DeviceLogIndex.h"
#include "LogFileIo.h"

class DeviceLogHistory;
class DeviceLogIndex;
class DeviceLogWriterCore;

class DeviceLogWriter {
public:
    // Size at which a device log is rotated into its ".back" file.
    static constexpr long long kRotateSize = 524288;
    // Open files of device logs kept at most, when the setting is absent.
    static constexpr std::size_t kDefaultMaxOpenFiles = 1024;
    // Writer threads when the setting is absent or 0: one per core, at most this many.
    static constexpr int kMaxDefaultThreads = 4;

    // Runs `complete`, which tells the listeners of one round of written batches how
    // their texts went; the collector wraps it so that the replies it sends leave
    // together. Called on a writer thread.
    using CompletionScope = std::function<void(const std::function<void()>& complete)>;

    struct Options {
        std::string logsDir;                 // the folder of the files (no trailing "/")
        long long rotateSize = kRotateSize;  // a file is rotated before a write once this big
        int threads = 0;                     // 0: one per core, at most kMaxDefaultThreads
        std::size_t maxOpenFiles = kDefaultMaxOpenFiles;  // at least 1
        std::shared_ptr<LogFileIo> io = LogFileIo::system();
        CompletionScope completionScope;  // null: the listeners are told directly
        // Where every written text is recorded (null: nowhere). Must outlive the writer.
        std::shared_ptr<DeviceLogIndex> index;
        // Where a backup goes instead of being replaced by a rotation (null: replaced).
        std::shared_ptr<DeviceLogHistory> history;
    };

    // Counts for the collector's statistics and the tests.
    struct Stats {
        std::size_t logs = 0;       // logs with a handle or text waiting
        std::size_t openFiles = 0;  // files open now
        std::size_t threads = 0;
        std::size_t queuedTexts = 0;  // queued and not yet written
        std::size_t reopened = 0;     // files opened again after the cache closed them
    };

    // Starts the threads. Throws std::runtime_error when none can be started.
    explicit DeviceLogWriter(Options options);
    DeviceLogWriter(const DeviceLogWriter&) = delete;
    DeviceLogWriter& operator=(const DeviceLogWriter&) = delete;
    // Writes everything queued (telling its listeners), then stops the threads and
    // closes the files. Texts queued afterwards through surviving handles are refused.
    ~DeviceLogWriter();

    // A handle on the log file `fileName` (one plain name inside the logs folder; the
    // caller has checked it). Handles of one name share one queue and one file, so that
    // texts queued through an old and a new handle keep their order. Nothing is opened
    // until the first text. Any thread.
    std::shared_ptr<CBBLogSink> open(const std::string& fileName);
    // The source of the log `fileName` from the next text on, for the index (in the
    // log's order: texts queued before keep the source they had). Any thread.
    void setIdentity(const std::string& fileName, const DeviceLogIndex::Identity& identity);
    // Waits until every text queued before the call has been written and its listener
    // told. Any thread but a writer's.
    void drain();
    Stats stats() const;
    // The thread count `requested` (the setting) resolves to on this machine.
    static int threadCount(int requested);

private:
    std::shared_ptr<DeviceLogWriterCore> core_;
};
