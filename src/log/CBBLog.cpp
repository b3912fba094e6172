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

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

#include "CRegistry.h"
#include "NimbSettingsKeys.h"
#include "PThread.h"
#include "PThreadDelegate.h"
#include "SuiteFolders.h"
#include "VaListEnd.h"

namespace {

const char* const kLevelLabels[] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG"};
const char* const kErrorLogName = "errors.log";
const char* const kWriterThreadName = "nimb-log";

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

// Whether standard output is /dev/null, looked at once per process: echoing there would
// only cost a write per line (a service's standard output often is).
bool echoDiscarded() {
    static const bool discarded = [] {
        struct stat out {};
        struct stat null {};
        return fstat(STDOUT_FILENO, &out) == 0 && S_ISCHR(out.st_mode) &&
               stat("/dev/null", &null) == 0 && out.st_rdev == null.st_rdev;
    }();
    return discarded;
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

CBBLog::CBBLog(const CStdStr& logName, bool withPid, long long rotateSize,
               std::shared_ptr<CBBLogSink> textSink)
    : name(logName),
      showPid(withPid),
      maxSize(rotateSize),
      pid(static_cast<unsigned>(getpid())),
      sink(std::move(textSink)) {}

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
    }
    shortName = shortNameOf(name);
    if (sink) logPath = sink->path();
    prepareProcess();
    initialized.store(true, std::memory_order_release);
    if (sink) return;  // the sink writes the texts: no thread, no file of its own

    // A failure to start the thread propagates to the caller, with fileMutex unlocked.
    thread = std::make_unique<PThread>(PThreadDelegateMember<CBBLog>(this, &CBBLog::loggerThread),
                                       nullptr, kWriterThreadName);
}

void CBBLog::readLogLevel() {
    int value = ERROR;
    try {
        boost::shared_ptr<CRegistry> registry = CRegistry::getInstance();
        if (!registry ||
            !registry->ReadSettingImpl(NimbSettings::kSuiteKey, NimbSettings::kLogLevel, value)) {
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

void CBBLog::setFileIoForTesting(std::shared_ptr<LogFileIo> fileIo) { io = std::move(fileIo); }

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
    try {
        addQueue(CStdStr(text));
    } catch (const std::bad_alloc&) {
        // Out of memory: the text is dropped, the caller carries on.
    }
}

namespace {

// A completion function told through the listener interface.
class WriteDoneListener : public LogWriteListener {
public:
    explicit WriteDoneListener(CBBLog::WriteDone done) : done_(std::move(done)) {}
    void writeDone(int error, const CStdStr& message) override { done_(error, message); }

private:
    CBBLog::WriteDone done_;
};

}  // namespace

void CBBLog::AddRawLog(CStdStr text, const std::shared_ptr<LogWriteListener>& listener,
                       const LogTextInfo& info) {
    if (sink) {
        int error = ECANCELED;
        try {
            if (!initialized.load(std::memory_order_acquire)) initialize();
            if (addToSink(std::move(text), listener, info)) return;
        } catch (const std::bad_alloc&) {
            error = ENOMEM;
        }
        if (listener) {
            listener->writeDone(
                error, error == ECANCELED ? "cannot write '" + logPath + "': the logger has stopped"
                                          : failureMessage("write", error));
        }
        return;
    }
    if (!listener) {
        AddRawLog(text.c_str());
        return;
    }
    AddRawLog(std::move(text), [listener](int error, const CStdStr& message) {
        listener->writeDone(error, message);
    });
}

void CBBLog::AddRawLog(CStdStr text, WriteDone done) {
    int error = ECANCELED;
    try {
        if (!initialized.load(std::memory_order_acquire)) initialize();
        if (sink) {
            AddRawLog(std::move(text), std::make_shared<WriteDoneListener>(std::move(done)));
            return;
        }
        if (addQueue(std::move(text), &done)) return;
    } catch (const std::bad_alloc&) {
        error = ENOMEM;
    } catch (const std::exception&) {
        error = EAGAIN;  // the writer thread could not be started
    }
    CStdStr message;
    try {
        message = error == ECANCELED ? "cannot write '" + logPath + "': the logger has stopped"
                                     : failureMessage("write", error);
    } catch (const std::bad_alloc&) {
        // The code alone still tells the caller why.
    }
    done(error, message);
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
    try {
        CStdStr line = buildLineHeader(messageLevel);
        line.reserve(line.size() + length + 1);
        line.append(text, length);
        line.push_back('\n');
        if (messageLevel == FATAL) {
            addQueue(line);
            _FatalError(line);
        } else {
            addQueue(std::move(line));
        }
    } catch (const std::bad_alloc&) {
        // Out of memory: the line is dropped, the caller carries on.
    }
}

CStdStr CBBLog::buildLineHeader(LOGLEVEL messageLevel) const {
    // Room for the longest header: date, time, label and a 32-bit process id.
    char header[64];
    CStdStr result(header, formatHeader(header, sizeof(header), messageLevel));
    if (messageLevel == FATAL) {
        result += shortName;
        result += " - ";
    }
    return result;
}

size_t CBBLog::formatHeader(char* out, size_t size, LOGLEVEL messageLevel) const {
    const ClockFields t = localNow();
    int length;
    if (showPid) {
        length = snprintf(out, size, "%04d/%02d/%02d %02d:%02d:%02d.%03d [%-5.5s] %u - ", t.year,
                          t.month, t.day, t.hour, t.minute, t.second, t.millisecond,
                          levelLabel(messageLevel), pid);
    } else {
        length =
            snprintf(out, size, "%04d/%02d/%02d %02d:%02d:%02d.%03d [%-5.5s] - ", t.year, t.month,
                     t.day, t.hour, t.minute, t.second, t.millisecond, levelLabel(messageLevel));
    }
    return std::min(static_cast<size_t>(std::max(length, 0)), size - 1);
}

CStdStr CBBLog::getTimeString() {
    const ClockFields t = localNow();
    char buffer[1024];
    snprintf(buffer, sizeof(buffer), "%04d/%02d/%02d %02d:%02d:%02d.%03d", t.year, t.month, t.day,
             t.hour, t.minute, t.second, t.millisecond);
    return buffer;
}

void CBBLog::echoLocked(const CStdStr& line) {
    if (echoDiscarded()) return;
    fputs(line.c_str(), stdout);
    fflush(stdout);
}

bool CBBLog::addToSink(CStdStr line, const std::shared_ptr<LogWriteListener>& listener,
                       const LogTextInfo& info) {
    // Echoed under the queue lock, so this logger's echoed lines never interleave; the
    // sink keeps the order of its texts.
    PMutexLocker lock(queueLock);
    echoLocked(line);
    return sink->append(std::move(line), listener, info);
}

bool CBBLog::addQueue(CStdStr line, WriteDone* done) {
    if (sink) {
        if (done == nullptr) return addToSink(std::move(line), nullptr);
        return addToSink(std::move(line), std::make_shared<WriteDoneListener>(std::move(*done)));
    }
    PMutexLocker lock(queueLock);
    // Once stopping, the writer may already have ended: a text that wants its outcome
    // is refused rather than left waiting forever.
    if (done != nullptr && stop) return false;
    // The writer waits only while the queue is empty, so only the first line into an
    // empty queue needs to wake it; later ones find it awake or already woken.
    const bool wakeWriter = queue.empty();
    if (done != nullptr) completions.push_back({queue.size(), std::move(*done)});
    queue.push_back(std::move(line));
    // Echoed under the queue lock, so echoed lines never interleave.
    echoLocked(queue.back());
    if (wakeWriter) queueLock.broadcast();
    return true;
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
    PMutexLocker lock(fileMutex);
    if (errorFd == -1) openErrorLogLocked();
    if (errorFd == -1) return;  // a fatal line that cannot be written is lost, as any other
    writeErrorLogLocked(line.data(), line.size());
}

// ---- The writer thread ----

void* CBBLog::loggerThread(void*) {
    // PThread gives this thread an alternate signal stack, so a crash handler can
    // still run here after the stack overflowed.
    std::deque<CStdStr> batch;
    std::vector<Completion> batchDone;
    try {
        // The files are opened here, never on a caller's thread; the main log first.
        openMainLog();
        {
            PMutexLocker lock(fileMutex);
            openErrorLogLocked();
        }
        for (;;) {
            {
                PMutexLocker lock(queueLock);
                while (!stop && queue.empty()) queueLock.wait();
                // Ends only once the queue is empty, so every line queued before stop was
                // set has been written.
                if (queue.empty()) break;
                batch.swap(queue);
                batchDone.swap(completions);
            }
            writeLines(batch, batchDone);
            batch.clear();
            batchDone.clear();
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
