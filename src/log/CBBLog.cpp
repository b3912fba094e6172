// SPDX-License-Identifier: MIT
// CBBLog instance side: lazy set-up, formatting, the queue, the writer thread and the
// file work (opening, rotation, writing). The static functions are in CBBLogStatic.cpp.
#include "CBBLog.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>
#include <typeinfo>

#include "CRegistry.h"
#include "PThread.h"
#include "PThreadDelegate.h"
#include "SuiteFolders.h"
#include "VaListEnd.h"
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

const char* const kLevelLabels[] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG"};
const char* const kSettingsKey = "Software\\Pellix\\Nimb";
const char* const kLogLevelValue = "LogLevel";
const char* const kErrorLogName = "errors.log";
const char* const kBackupSuffix = ".back";
const char* const kWriterThreadName = "nimb-log";
// The most lines one batched write hands to the kernel (the writev limit).
constexpr int kMaxLinesPerWrite = IOV_MAX;

const char* levelLabel(LOGLEVEL messageLevel) {
    // A level outside the table (possible through AddLog) gets a blank label.
    if (messageLevel < FATAL || messageLevel > DEBUG) return "";
    return kLevelLabels[messageLevel];
}

// Local wall-clock time split into the fields of a line header.
struct ClockFields {
    int year, month, day, hour, minute, second, millisecond;
};

ClockFields localNow() {
    timeval now{};
    gettimeofday(&now, nullptr);
    // The calendar fields change once a second; converting once per second and thread
    // keeps localtime_r (and its process-wide lock) off the hot path.
    thread_local time_t cachedSecond = -1;
    thread_local tm cachedFields{};
    if (now.tv_sec != cachedSecond) {
        localtime_r(&now.tv_sec, &cachedFields);
        cachedSecond = now.tv_sec;
    }
    return {cachedFields.tm_year + 1900,
            cachedFields.tm_mon + 1,
            cachedFields.tm_mday,
            cachedFields.tm_hour,
            cachedFields.tm_min,
            cachedFields.tm_sec,
            static_cast<int>(now.tv_usec / 1000)};
}

// Formats into a fixed buffer; returns the length kept (the text is cut to fit).
size_t formatInto(char* buffer, size_t size, const char* format, va_list args) {
    const int written = vsnprintf(buffer, size, format != nullptr ? format : "", args);
    if (written < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return std::min(static_cast<size_t>(written), size - 1);
}

// The file name without folder and extension: up to the first '.', then after the
// last '/' or '\'.
CStdStr shortNameOf(const CStdStr& fileName) {
    CStdStr result = fileName.substr(0, fileName.find('.'));
    const size_t slash = result.find_last_of("/\\");
    if (slash != CStdStr::npos) result.erase(0, slash + 1);
    return result;
}

}  // namespace

CBBLog::CBBLog(const CStdStr& logName, bool withPid, long long rotateSize)
    : name(logName), showPid(withPid), maxSize(rotateSize), pid(static_cast<unsigned>(getpid())) {}

CBBLog::~CBBLog() {
    stopWriter();
    const int fd = logFd.exchange(-1);
    if (fd != -1) close(fd);
    PMutexLocker lock(fileMutex);
    if (errorFd != -1) close(errorFd);
    errorFd = -1;
    // Lines queued after the writer ended are discarded with the queue.
}

void CBBLog::stopWriter() {
    {
        PMutexLocker lock(queueLock);
        stop = true;
        queueLock.broadcast();
    }
    if (thread) {
        thread->join();  // the writer empties the queue before it ends
        thread.reset();
    }
}

void CBBLog::initialize() {
    PMutexLocker lock(fileMutex);
    if (initialized.load(std::memory_order_acquire)) return;

    const CStdStr dir = getLogsDirectory();
    if (!dir.empty()) {
        logPath = dir + "/" + name;
        errorLogPath = dir + "/" + kErrorLogName;
        mkdir(dir.c_str(), 0777);  // an existing folder is fine; a failure shows in the opens
        int fd = -1;
        if (!openFile(fd, logPath, false)) {
            printf("Error: could not open log file '%s': %d\n", logPath.c_str(), errno);
        } else {
            logOpen = true;
            fchmod(fd, 0666);  // shared by the suite's processes, whichever user they run as
            logFd.store(fd);
        }
        if (!openFile(errorFd, errorLogPath, false)) {
            // Names the main log's path, as this message always has.
            printf("Error: could not open error log file '%s': %d\n", logPath.c_str(), errno);
        } else {
            errorLogOpen = true;
            fchmod(errorFd, 0666);
        }
        fflush(stdout);
    }
    shortName = shortNameOf(name);
    // Set also when the opens failed: a failed open is not retried.
    initialized.store(true, std::memory_order_release);

    // A failure to start the thread propagates to the caller, with fileMutex unlocked.
    thread = std::make_unique<PThread>(PThreadDelegateMember<CBBLog>(this, &CBBLog::loggerThread),
                                       nullptr, kWriterThreadName);
}

void CBBLog::readLogLevel() {
    int value = ERROR;
    try {
        boost::shared_ptr<CRegistry> registry = CRegistry::getInstance();
        if (!registry || !registry->ReadSettingImpl(kSettingsKey, kLogLevelValue, value)) {
            value = ERROR;
        }
    } catch (const std::exception&) {
        value = ERROR;  // an unreadable store counts as a missing setting
    }
    level.store(static_cast<LOGLEVEL>(value), std::memory_order_relaxed);
}

CStdStr CBBLog::getLogsDirectory() {
    try {
        return CSuiteFolders::logsDirectory();
    } catch (const std::exception&) {
        return CSuiteFolders::kDefaultLogsDirectory;  // the settings store failed
    }
}

void CBBLog::setLogLevel(LOGLEVEL newLevel) { level.store(newLevel, std::memory_order_relaxed); }

// ---- Formatting and queueing (callers' threads) ----

void CBBLog::AddLog(const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    _AddLog(format, args, DEBUG);
}

void CBBLog::AddLog(LOGLEVEL messageLevel, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    _AddLog(format, args, messageLevel);
}

void CBBLog::AddRawLog(const char* text) {
    if (!initialized.load(std::memory_order_acquire)) initialize();
    if (!logOpen) return;
    try {
        addQueue(CStdStr(text));
    } catch (const std::bad_alloc&) {
        // Out of memory: the text is dropped, the caller carries on.
    }
}

void CBBLog::_AddLog(const boost::format& format, LOGLEVEL messageLevel) {
    if (getLogLevel() == kLevelUnset) readLogLevel();
    if (getLogLevel() < messageLevel) return;
    CStdStr text;
    try {
        text = format.str();
    } catch (const std::exception& e) {
        // A format that cannot be rendered still leaves a trace of the attempt.
        text = CStdStr("log format error: ") + e.what();
    }
    if (text.size() >= kFormatBufferSize) text.resize(kFormatBufferSize - 1);
    emitLine(text.data(), text.size(), messageLevel);
}

void CBBLog::_AddLog(const char* format, va_list args, LOGLEVEL messageLevel) {
    if (getLogLevel() == kLevelUnset) readLogLevel();
    if (getLogLevel() < messageLevel) return;
    char text[kFormatBufferSize];
    const size_t length = formatInto(text, sizeof(text), format, args);
    emitLine(text, length, messageLevel);
}

void CBBLog::emitLine(const char* text, size_t length, LOGLEVEL messageLevel) {
    if (!initialized.load(std::memory_order_acquire)) initialize();
    if (!logOpen && !errorLogOpen) return;
    try {
        CStdStr line = buildLineHeader(messageLevel);
        line.reserve(line.size() + length + 1);
        line.append(text, length);
        line.push_back('\n');
        if (messageLevel == FATAL) {
            if (logOpen) addQueue(line);
            _FatalError(line);
        } else if (logOpen) {
            addQueue(std::move(line));
        }
    } catch (const std::bad_alloc&) {
        // Out of memory: the line is dropped, the caller carries on.
    }
}

CStdStr CBBLog::buildLineHeader(LOGLEVEL messageLevel) const {
    const ClockFields t = localNow();
    // Room for the longest header: date, time, label and a 32-bit process id.
    char header[64];
    int length;
    if (showPid) {
        length =
            snprintf(header, sizeof(header), "%04d/%02d/%02d %02d:%02d:%02d.%03d [%-5.5s] %u - ",
                     t.year, t.month, t.day, t.hour, t.minute, t.second, t.millisecond,
                     levelLabel(messageLevel), pid);
    } else {
        length = snprintf(header, sizeof(header), "%04d/%02d/%02d %02d:%02d:%02d.%03d [%-5.5s] - ",
                          t.year, t.month, t.day, t.hour, t.minute, t.second, t.millisecond,
                          levelLabel(messageLevel));
    }
    CStdStr result(header, std::min(static_cast<size_t>(std::max(length, 0)), sizeof(header) - 1));
    if (messageLevel == FATAL) {
        result += shortName;
        result += " - ";
    }
    return result;
}

CStdStr CBBLog::getTimeString() {
    const ClockFields t = localNow();
    char buffer[1024];
    snprintf(buffer, sizeof(buffer), "%04d/%02d/%02d %02d:%02d:%02d.%03d", t.year, t.month, t.day,
             t.hour, t.minute, t.second, t.millisecond);
    return buffer;
}

void CBBLog::addQueue(CStdStr line) {
    PMutexLocker lock(queueLock);
    // The writer waits only while the queue is empty, so only the first line into an
    // empty queue needs to wake it; later ones find it awake or already woken.
    const bool wakeWriter = queue.empty();
    queue.push_back(std::move(line));
    // Echoed under the queue lock, so echoed lines never interleave.
    fputs(queue.back().c_str(), stdout);
    fflush(stdout);
    if (wakeWriter) queueLock.broadcast();
}

CStdStr CBBLog::getLogs() {
    PMutexLocker lock(queueLock);
    CStdStr result;
    for (const CStdStr& line : queue) result += line;
    return result;
}

// ---- The synchronous error log ----

void CBBLog::_FatalError(const CStdStr& line) {
    if (!initialized.load(std::memory_order_acquire)) initialize();
    if (!errorLogOpen) return;
    PMutexLocker lock(fileMutex);
    rotateIfNeeded(errorFd, errorLogPath);
    if (write(errorFd, line.data(), line.size()) < 0) {
        // Not retried: a fatal line that cannot be written is lost, as any other.
    }
}

// ---- The writer thread ----

void* CBBLog::loggerThread(void*) {
    // PThread gives this thread an alternate signal stack, so a crash handler can
    // still run here after the stack overflowed.
    std::deque<CStdStr> batch;
    try {
        for (;;) {
            {
                PMutexLocker lock(queueLock);
                while (!stop && queue.empty()) queueLock.wait();
                // Ends only once the queue is empty, so every line queued before stop was
                // set has been written.
                if (queue.empty()) break;
                batch.swap(queue);
            }
            writeLines(batch);
            batch.clear();
        }
    } catch (const std::exception& e) {
        fprintf(stderr, "%s: writer thread failed: %s\n", kWriterThreadName, e.what());
        std::abort();
    } catch (...) {
        fprintf(stderr, "%s: writer thread failed: unknown exception\n", kWriterThreadName);
        std::abort();
    }
    return nullptr;
}

void CBBLog::writeLines(std::deque<CStdStr>& lines) {
    // A derived logger sees every line through its own logLineToFile; a plain logger
    // writes runs of lines at once.
    if (typeid(*this) == typeid(CBBLog)) {
        writeBatched(lines);
        return;
    }
    for (const CStdStr& line : lines) logLineToFile(line);
}

void CBBLog::logLineToFile(const CStdStr& line) {
    int fd = logFd.load();
    rotateIfNeeded(fd, logPath);
    logFd.store(fd);
    if (write(fd, line.data(), line.size()) < 0) {
        // Not retried; the next line tries again (and reopens a vanished file first).
    }
}

// Writes the same bytes in the same order as one logLineToFile per line, with fewer
// system calls: after each rotation check, the lines that follow are gathered into one
// writev as long as the size the file would have before each of them stays below
// maxSize, that is, as long as logLineToFile would not rotate before that line. The
// run ends at the line that crosses the limit, so the next run starts with a rotation.
// What is checked once per run instead of per line is whether another process deleted
// or rotated the file meanwhile; lines written in that window land in the old file,
// just as a line written between the check and the write does in the per-line case.
void CBBLog::writeBatched(std::deque<CStdStr>& lines) {
    iovec parts[kMaxLinesPerWrite];
    int fd = logFd.load();
    size_t next = 0;
    while (next < lines.size()) {
        const long long size = rotateAndGetSize(fd, logPath);
        logFd.store(fd);
        int count = 0;
        long long pending = 0;
        do {
            CStdStr& line = lines[next++];
            parts[count++] = {line.data(), line.size()};
            pending += static_cast<long long>(line.size());
        } while (next < lines.size() && count < kMaxLinesPerWrite && size >= 0 &&
                 size + pending < maxSize);
        if (writev(fd, parts, count) < 0) {
            // Not retried, as for a single line.
        }
    }
}

// ---- Files ----

bool CBBLog::openFile(int& fd, const CStdStr& path, bool truncate) {
    const int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | (truncate ? O_TRUNC : 0);
    fd = open(path.c_str(), flags, 0666);
    return fd != -1;
}

void CBBLog::rotateIfNeeded(int& fd, const CStdStr& path) { rotateAndGetSize(fd, path); }

// The rotation check before a write to `fd`; returns the size of the file `fd` then
// names (-1 when unknown). Uses system calls only and builds the backup name on the
// stack, so the synchronous error-log path stays free of allocations.
long long CBBLog::rotateAndGetSize(int& fd, const CStdStr& path) {
    struct stat opened {};
    if (fstat(fd, &opened) != 0) return -1;  // not open: the write fails on its own
    struct stat named {};
    bool reopen = false;
    if (stat(path.c_str(), &named) != 0) {
        if (errno != ENOENT) return opened.st_size;
        reopen = true;  // deleted or moved away: start a new file at the path
    } else if (named.st_ino != opened.st_ino || named.st_dev != opened.st_dev) {
        reopen = true;  // another process rotated it: follow to the new file
    } else if (opened.st_size < maxSize) {
        return opened.st_size;
    }
    if (!reopen) {
        // Size reached. The exclusive lock serialises rotation between processes; the
        // second stat under it sees whether another process rotated first, in which
        // case the path already names a fresh file and is left alone.
        if (flock(fd, LOCK_EX) != 0) return opened.st_size;  // try again before the next line
        char backup[PATH_MAX];
        const size_t suffixLength = strlen(kBackupSuffix);
        if (stat(path.c_str(), &named) == 0 && named.st_ino == opened.st_ino &&
            named.st_dev == opened.st_dev && path.size() + suffixLength < sizeof(backup)) {
            memcpy(backup, path.data(), path.size());
            memcpy(backup + path.size(), kBackupSuffix, suffixLength + 1);
            // Replaces the previous backup. If the rename fails the same file is reopened
            // and the check repeats before the next line.
            rename(path.c_str(), backup);
        }
    }
    close(fd);  // also drops the lock
    fd = -1;
    if (!openFile(fd, path, false)) return -1;
    return fstat(fd, &opened) == 0 ? opened.st_size : -1;
}

long long CBBLog::getFileSize() const {
    const int fd = logFd.load();
    struct stat info {};
    if (fd == -1 || fstat(fd, &info) != 0) return -1;
    return info.st_size;
}
