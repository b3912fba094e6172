// SPDX-License-Identifier: MIT
// The shared writer's work: the queue of ready logs, the file cache, the writer
// threads' batches (rotation and writev by the suite's file rules) and the outcomes.
#include "DeviceLogWriterCore.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <optional>
#include <stdexcept>

#include <sys/stat.h>
#include <unistd.h>

#include <boost/shared_ptr.hpp>

#include "CBBLog.h"
#include "DeviceLogHistory.h"
#include "DeviceLogLines.h"
#include "PThread.h"
#include "PThreadDelegate.h"

namespace {

const char* const kThreadName = "nimb-devlog";
const char* const kReportPrefix = "nimb-log";
// The most logs one writer takes at a time: their replies then leave together.
constexpr std::size_t kLogsPerRound = 32;
// The most texts one writev hands to the kernel (the writev limit).
constexpr std::size_t kMaxTextsPerWrite = IOV_MAX;
// Mode of the logs folder when the writer has to create it.
constexpr mode_t kFolderMode = 0775;

// The file name without its extension, as the suite's loggers name themselves in reports.
CStdStr shortNameOf(const std::string& fileName) { return fileName.substr(0, fileName.find('.')); }

// Writes `text` into the process's own log, or to standard error when there is none or
// it cannot be written either.
void report(const CStdStr& shortName, const CStdStr& text) {
    const boost::shared_ptr<CBBLog> own = CBBLog::getLogger();
    if (own && own->isWritable()) {
        CBBLog::error(own, "%s", text.c_str());
        return;
    }
    fprintf(stderr, "%s: %s: %s\n", kReportPrefix, shortName.c_str(), text.c_str());
}

}  // namespace

DeviceLogWriterCore::DeviceLogWriterCore(DeviceLogWriter::Options options)
    : options_(std::move(options)) {}

DeviceLogWriterCore::~DeviceLogWriterCore() { stop(); }

void DeviceLogWriterCore::start() {
    RotatingLogFile::prepareProcess();
    const int count = DeviceLogWriter::threadCount(options_.threads);
    for (int i = 0; i < count; ++i) {
        try {
            {
                PMutexLocker lock(mutex_);
                ++running_;
            }
            threads_.push_back(std::make_unique<PThread>(
                PThreadDelegateMember<DeviceLogWriterCore>(this, &DeviceLogWriterCore::run),
                nullptr, kThreadName));
        } catch (const std::exception&) {
            {
                PMutexLocker lock(mutex_);
                --running_;
            }
            if (threads_.empty()) throw;
            break;  // fewer writers than asked for still write everything
        }
    }
}

void DeviceLogWriterCore::stop() {
    {
        PMutexLocker lock(mutex_);
        if (stopping_) return;
        stopping_ = true;
        mutex_.broadcast();
    }
    // The writers end once the ready queue is empty, so everything queued is written.
    for (const std::unique_ptr<PThread>& thread : threads_) thread->join();
    threads_.clear();
    PMutexLocker lock(mutex_);
    stopped_ = true;
    for (auto& entry : logs_) closeFileLocked(*entry.second);
}

DeviceLogState* DeviceLogWriterCore::acquire(const std::string& fileName) {
    PMutexLocker lock(mutex_);
    std::unique_ptr<DeviceLogState>& log = logs_[fileName];
    if (!log) {
        log = std::make_unique<DeviceLogState>(fileName, options_.logsDir + "/" + fileName,
                                               shortNameOf(fileName));
    }
    ++log->handles;
    return log.get();
}

void DeviceLogWriterCore::release(DeviceLogState* log) {
    PMutexLocker lock(mutex_);
    if (--log->handles > 0 || log->busy || log->ready) return;
    // Nothing waits for it: the file is closed and the log forgotten. A log still being
    // written is forgotten by its writer once it is done (finishRound).
    closeFileLocked(*log);
    logs_.erase(std::string(log->fileName));  // a copy: the key dies with the entry
}

bool DeviceLogWriterCore::append(DeviceLogState& log, DeviceLogItem item) {
    if (options_.index && item.info.receivedMs == 0) {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        item.info.receivedMs = now.tv_sec * 1000LL + now.tv_nsec / 1000000;
    }
    PMutexLocker lock(mutex_);
    // While a writer still runs, it takes this text before it ends.
    if (stopping_ && running_ == 0) return false;
    log.pending.push_back(std::move(item));
    ++queued_;
    if (log.ready || log.busy) return true;  // its writer takes it again when done
    log.ready = true;
    ready_.push_back(&log);
    if (waiting_ > 0) mutex_.broadcast();
    return true;
}

void DeviceLogWriterCore::drain() {
    PMutexLocker lock(mutex_);
    while (queued_ > 0 && !stopped_) mutex_.wait();
}

DeviceLogWriter::Stats DeviceLogWriterCore::stats() const {
    PMutexLocker lock(mutex_);
    DeviceLogWriter::Stats result;
    result.logs = logs_.size();
    result.openFiles = openFiles_;
    result.threads = threads_.size();
    result.queuedTexts = queued_;
    result.reopened = reopened_;
    return result;
}

// ---- Writer threads ----

void* DeviceLogWriterCore::run(void*) {
    std::vector<Batch> round;
    try {
        while (takeRound(round)) {
            for (Batch& batch : round) writeBatch(batch);
            complete(round);
            finishRound(round);
        }
    } catch (const std::exception& e) {
        fprintf(stderr, "%s: writer thread failed: %s\n", kThreadName, e.what());
        std::abort();
    }
    return nullptr;
}

bool DeviceLogWriterCore::takeRound(std::vector<Batch>& round) {
    PMutexLocker lock(mutex_);
    ++waiting_;
    while (!stopping_ && ready_.empty()) mutex_.wait();
    --waiting_;
    if (ready_.empty()) {  // stopping, and everything was taken
        --running_;
        return false;
    }
    const std::size_t count = std::min(ready_.size(), kLogsPerRound);
    round.resize(count);
    for (Batch& batch : round) {
        DeviceLogState* log = ready_.front();
        ready_.pop_front();
        log->ready = false;
        log->busy = true;
        batch.log = log;
        batch.wasOpen = log->fd != -1;
        // The emptied vector goes back to the log, so both keep their capacity.
        batch.items.swap(log->pending);
        batch.failures.clear();
        if (!batch.wasOpen) {
            ++opening_;
            makeRoomLocked();
        }
    }
    return true;
}

void DeviceLogWriterCore::makeRoomLocked() {
    const std::size_t limit = std::max<std::size_t>(options_.maxOpenFiles, 1);
    auto place = cache_.begin();
    while (openFiles_ + opening_ > limit && place != cache_.end()) {
        DeviceLogState* idlest = *place++;
        if (!idlest->busy) closeFileLocked(*idlest);  // reopened on its next text
    }
}

void DeviceLogWriterCore::closeFileLocked(DeviceLogState& log) {
    if (log.fd != -1) close(log.fd);
    log.fd = -1;
    if (!log.inCache) return;
    cache_.erase(log.cachePlace);
    log.inCache = false;
    --openFiles_;
}

void DeviceLogWriterCore::complete(std::vector<Batch>& round) {
    auto tell = [&round] {
        for (Batch& batch : round) {
            std::size_t next = 0;
            for (const Failure& failure : batch.failures) {
                for (; next < failure.from; ++next) {
                    if (batch.items[next].listener) batch.items[next].listener->writeDone(0, {});
                }
                for (; next < failure.to; ++next) {
                    if (batch.items[next].listener) {
                        batch.items[next].listener->writeDone(failure.error, failure.message);
                    }
                }
            }
            for (; next < batch.items.size(); ++next) {
                if (batch.items[next].listener) batch.items[next].listener->writeDone(0, {});
            }
        }
    };
    if (options_.completionScope) {
        options_.completionScope(tell);
    } else {
        tell();
    }
}

void DeviceLogWriterCore::finishRound(std::vector<Batch>& round) {
    PMutexLocker lock(mutex_);
    for (Batch& batch : round) {
        DeviceLogState& log = *batch.log;
        log.busy = false;
        queued_ -= batch.items.size();
        if (!batch.wasOpen) --opening_;
        if (log.fd != -1) {
            if (!log.inCache) {
                log.cachePlace = cache_.insert(cache_.end(), &log);
                log.inCache = true;
                ++openFiles_;
                if (log.openedBefore) ++reopened_;
                log.openedBefore = true;
            } else {
                cache_.splice(cache_.end(), cache_, log.cachePlace);  // used last
            }
        } else if (log.inCache) {
            log.inCache = false;  // closed by its writer (a failed reopen)
            cache_.erase(log.cachePlace);
            --openFiles_;
        }
        // The texts are released here, outside any other lock than the core's.
        batch.items.clear();
        if (!log.pending.empty()) {
            log.ready = true;
            ready_.push_back(&log);
        } else if (log.handles == 0) {
            closeFileLocked(log);
            logs_.erase(std::string(log.fileName));  // a copy: the key dies with the entry
        }
    }
    makeRoomLocked();
    // drain() waits for the queue to empty; idle writers for logs that became ready.
    if (queued_ == 0 || (waiting_ > 0 && !ready_.empty())) mutex_.broadcast();
}

// ---- One log's batch (the log is busy: this thread owns its file) ----

// Writes the same bytes in the same order as one write per text, with fewer system
// calls: after each rotation check, the texts that follow are gathered into one writev
// as long as the size the file would have before each of them stays below the limit,
// that is, as long as a write per text would not rotate before that text. While a
// failed rotation is backing off there is no limit to a run.
void DeviceLogWriterCore::writeBatch(Batch& batch) {
    DeviceLogState& log = *batch.log;
    std::vector<DeviceLogItem>& items = batch.items;
    iovec parts[kMaxTextsPerWrite];
    std::size_t next = 0;
    while (next < items.size()) {
        long long size = -1;
        const int fd = prepareFile(log, size);
        const long long now = options_.io->nowMs();
        const bool limited = log.file.rotateRetryAt == 0 || now >= log.file.rotateRetryAt;
        const std::size_t first = next;
        long long pending = 0;
        int count = 0;
        do {
            CStdStr& text = items[next++].text;
            parts[count++] = {text.data(), text.size()};
            pending += static_cast<long long>(text.size());
        } while (next < items.size() && next - first < kMaxTextsPerWrite &&
                 (fd == -1 || (size >= 0 && (!limited || size + pending < options_.rotateSize))));
        if (fd == -1) {
            const int error = log.file.openError;
            const CStdStr message = failureMessage(log, "open", error);
            noteOutcome(log, error, message, next - first);
            batch.failures.push_back({first, next, error, message});
            continue;
        }
        int error = 0;
        int cutError = 0;
        const std::size_t written =
            RotatingLogFile::writeParts(*options_.io, fd, parts, count, error, cutError);
        if (cutError != 0) {
            report(log.shortName,
                   "Log file failure: " + failureMessage(log, "cut a torn line off", cutError));
        }
        if (options_.index && size >= 0) recordWritten(log, items, first, first + written, size);
        if (error == 0) {
            noteOutcome(log, 0, CStdStr(), 0);
            continue;
        }
        const CStdStr message = failureMessage(log, "write", error);
        noteOutcome(log, error, message, next - first - written);
        batch.failures.push_back({first + written, next, error, message});
    }
}

void DeviceLogWriterCore::recordWritten(DeviceLogState& log, std::vector<DeviceLogItem>& items,
                                        std::size_t first, std::size_t end, long long offset) {
    DeviceLogIndex& index = *options_.index;
    DeviceLogIndex::Text text;
    text.file = log.fileName;
    text.fileId = log.file.fileId;
    for (std::size_t i = first; i < end; ++i) {
        DeviceLogItem& item = items[i];
        if (item.identity) index.setIdentity(log.fileName, *item.identity);
        if (item.text.empty()) continue;
        const LogTextInfo& info = item.info;
        const DeviceLogLines::Summary summary =
            DeviceLogLines::summarize(item.text, info.receivedMs / 1000, info.severities);
        text.offset = static_cast<std::uint64_t>(offset);
        text.length = item.text.size();
        text.receivedMs = info.receivedMs;
        text.hasDeviceTime = info.hasDeviceTime;
        text.deviceTime = info.deviceTime;
        text.clockOffset = info.clockOffset;
        text.firstTime = summary.firstTime;
        text.lastTime = summary.lastTime;
        text.severities = summary.severities;
        text.lines = summary.lines;
        text.header = info.header;
        index.record(text);
        offset += static_cast<long long>(item.text.size());
    }
}

namespace {

// Keeps the backup a rotation is about to replace in the history, and tells the index.
class HistoryHook : public RotationHook {
public:
    HistoryHook(DeviceLogHistory& history, DeviceLogIndex* index, const std::string& fileName)
        : history_(history), index_(index), fileName_(fileName) {}
    void beforeReplacingBackup(const char* backupPath) override {
        const std::string kept = history_.keep(fileName_, backupPath);
        if (!kept.empty() && index_ != nullptr) index_->movedToHistory(fileName_, kept);
    }

private:
    DeviceLogHistory& history_;
    DeviceLogIndex* const index_;
    const std::string& fileName_;
};

}  // namespace

// A file the cache closed is opened first, so that the size check before the write
// (and the rotation it may call for) happens whether the file was open or not.
int DeviceLogWriterCore::prepareFile(DeviceLogState& log, long long& size) {
    size = -1;
    int fd = log.fd != -1 ? log.fd : openFile(log);
    if (fd == -1) return -1;
    std::optional<HistoryHook> hook;
    if (options_.history) hook.emplace(*options_.history, options_.index.get(), log.fileName);
    size = RotatingLogFile::rotateAndGetSize(*options_.io, fd, log.path, options_.rotateSize,
                                             log.file, hook ? &*hook : nullptr);
    log.fd = fd;
    if (log.file.rotateError != 0) reportRotationFailure(log);
    if (fd == -1) {
        // The rotation's reopen failed: one more open, as for a file that was closed.
        fd = openFile(log);
        struct stat info {};
        size = fd != -1 && options_.io->fstat(fd, &info) == 0 ? info.st_size : -1;
        if (size >= 0) log.file.fileId = logFileIdOf(info);
    }
    return fd;
}

int DeviceLogWriterCore::openFile(DeviceLogState& log) {
    const long long now = options_.io->nowMs();
    if (log.file.openError != 0 && now < log.file.openRetryAt) return -1;
    // The folder may have vanished since the last open; a failure shows in the open.
    mkdir(options_.logsDir.c_str(), kFolderMode);
    int fd = -1;
    if (!RotatingLogFile::open(*options_.io, fd, log.path, false)) {
        log.file.openError = errno;
        log.file.openRetryAt = now + CBBLog::kOpenRetryMs;
        return -1;
    }
    log.file.openError = 0;
    log.fd = fd;
    return fd;
}

void DeviceLogWriterCore::reportRotationFailure(DeviceLogState& log) {
    const long long now = options_.io->nowMs();
    if (now >= log.file.rotateReportAt) {
        char reason[256];
        const char* text = strerror_r(log.file.rotateError, reason, sizeof(reason));
        const CStdStr line = CBBLog::getTimeString() + " [ERROR] - " + log.shortName +
                             " - cannot rotate '" + log.path + "' to '" + log.path +
                             RotatingLogFile::kBackupSuffix + "': " + text +
                             "; appending to it, next attempt in " +
                             std::to_string(RotatingLogFile::kRotateRetryMs / 1000) + " s\n";
        // Into errors.log, which the process's own logger keeps open for all its loggers.
        const boost::shared_ptr<CBBLog> own = CBBLog::getLogger();
        if (own) {
            own->_FatalError(line);
        } else {
            fprintf(stderr, "%s: %s", kReportPrefix, line.c_str());
        }
        log.file.rotateReportAt = now + CBBLog::kReportIntervalMs;
    }
    log.file.rotateError = 0;
}

CStdStr DeviceLogWriterCore::failureMessage(const DeviceLogState& log, const char* action,
                                            int error) const {
    char reason[256];
    // The GNU strerror_r returns the text, which need not be in `reason`.
    const char* text = strerror_r(error, reason, sizeof(reason));
    if (strcmp(action, "open") == 0 && RotatingLogFile::isNotARegularFile(error)) {
        return "cannot open '" + log.path + "': not a regular file (" + text + ")";
    }
    return CStdStr("cannot ") + action + " '" + log.path + "': " + text;
}

void DeviceLogWriterCore::noteOutcome(DeviceLogState& log, int error, const CStdStr& message,
                                      std::size_t texts) {
    if (error == 0) {
        if (log.failing) {
            report(log.shortName, "Log file recovered: '" + log.path +
                                      "' is written again (texts not written before: " +
                                      std::to_string(log.unreportedFailures) + ")");
        }
        log.failing = false;
        log.unreportedFailures = 0;
        log.failureReportAt = 0;
        return;
    }
    log.failing = true;
    log.unreportedFailures += texts;
    const long long now = options_.io->nowMs();
    if (now < log.failureReportAt) return;
    report(log.shortName, "Log file failure: " + message + " (texts not written: " +
                              std::to_string(log.unreportedFailures) + ")");
    log.unreportedFailures = 0;
    log.failureReportAt = now + CBBLog::kReportIntervalMs;
}
