// SPDX-License-Identifier: MIT
// CBBLog instance side: lazy set-up, formatting a message into a line and handing it to
// the queue (or the sink), FATAL lines to errors.log, and the writer's choice between
// batched and per-line writes. The static functions are in CBBLogStatic.cpp.
#include "CBBLog.h"

#include <cerrno>
#include <cstdio>
#include <exception>
#include <new>

#include <sys/stat.h>
#include <unistd.h>

#include "CRegistry.h"
#include "DefaultLogger.h"
#include "NimbSettingsKeys.h"
#include "SuiteFolders.h"
#include "VaListEnd.h"

namespace {

const char* const kReportPrefix = "nimb-log";

// A completion function told through the listener interface.
class WriteDoneListener : public LogWriteListener {
public:
    explicit WriteDoneListener(CBBLog::WriteDone done) : done_(std::move(done)) {}
    void writeDone(int error, const CStdStr& message) override { done_(error, message); }

private:
    CBBLog::WriteDone done_;
};

}  // namespace

CBBLog::CBBLog(const CStdStr& logName, bool withPid, long long rotateSize)
    : CBBLog(logName, withPid, rotateSize, nullptr) {}

CBBLog::CBBLog(const CStdStr& logName, bool withPid, long long rotateSize,
               std::shared_ptr<CBBLogSink> textSink)
    : name(logName),
      lineFormat(logName, withPid, static_cast<unsigned>(getpid())),
      sink(std::move(textSink)),
      errorLog(lineFormat, rotateSize),
      mainLog(lineFormat, errorLog, rotateSize,
              [this](const CStdStr& text) { reportFailure(text); }) {}

CBBLog::~CBBLog() {
    stopWriter();
    // Lines queued after the writer ended are discarded with the queue.
    mainLog.close();
    errorLog.close();
}

void CBBLog::stopWriter() { queue.stop(); }

void CBBLog::initialize() {
    PMutexLocker lock(initMutex);
    if (initialized.load(std::memory_order_acquire)) return;

    const CStdStr dir = getLogsDirectory();
    CStdStr logPath;
    if (sink) {
        logPath = sink->path();
    } else if (!dir.empty()) {
        logPath = dir + "/" + name;
    }
    mainLog.setPath(logPath);
    errorLog.setPaths(dir, logPath);
    RotatingLogFile::prepareProcess();
    initialized.store(true, std::memory_order_release);
    if (sink) return;  // the sink writes the texts: no thread, no file of its own

    // A failure to start the thread propagates to the caller, with initMutex unlocked.
    queue.start(
        [this] {
            // The files are opened here, never on a caller's thread; the main log first.
            mainLog.open();
            errorLog.open();
        },
        [this](std::deque<CStdStr>& lines, std::vector<LogLineQueue::Completion>& done) {
            writeRun(lines, done);
        });
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

CStdStr CBBLog::getTimeString() { return LogLineFormat::timeString(); }

bool CBBLog::openLogFile(LogFileIo& io, int& fd, const CStdStr& path, bool truncate) {
    return RotatingLogFile::open(io, fd, path, truncate);
}

void CBBLog::setFileIoForTesting(std::shared_ptr<LogFileIo> fileIo) {
    mainLog.setIo(fileIo);
    errorLog.setIo(std::move(fileIo));
}

void CBBLog::setLogLevel(LOGLEVEL newLevel) { level.store(newLevel, std::memory_order_relaxed); }

long long CBBLog::getFileSize() const {
    if (!sink) return mainLog.size();
    struct stat info {};
    return stat(sink->path().c_str(), &info) == 0 ? info.st_size : -1;
}

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
            listener->writeDone(error, error == ECANCELED ? "cannot write '" + mainLog.path() +
                                                                "': the logger has stopped"
                                                          : mainLog.failureMessage("write", error));
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
        message = error == ECANCELED
                      ? "cannot write '" + mainLog.path() + "': the logger has stopped"
                      : mainLog.failureMessage("write", error);
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
    const size_t length = LogLineFormat::formatText(text, sizeof(text), format, args);
    emitLine(text, length, messageLevel);
}

void CBBLog::emitLine(const char* text, size_t length, LOGLEVEL messageLevel) {
    if (!initialized.load(std::memory_order_acquire)) initialize();
    try {
        CStdStr line = lineFormat.lineHeader(messageLevel);
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

bool CBBLog::addToSink(CStdStr line, const std::shared_ptr<LogWriteListener>& listener,
                       const LogTextInfo& info) {
    // Echoed under one lock, so this logger's echoed lines never interleave; the sink
    // keeps the order of its texts.
    PMutexLocker lock(sinkEchoLock);
    LogLineQueue::echo(line);
    return sink->append(std::move(line), listener, info);
}

bool CBBLog::addQueue(CStdStr line, WriteDone* done) {
    if (sink) {
        if (done == nullptr) return addToSink(std::move(line), nullptr);
        return addToSink(std::move(line), std::make_shared<WriteDoneListener>(std::move(*done)));
    }
    return queue.push(std::move(line), done);
}

void CBBLog::_FatalError(const CStdStr& line) {
    if (!initialized.load(std::memory_order_acquire)) initialize();
    // A fatal line that cannot be written is lost, as any other.
    errorLog.append(line.data(), line.size());
}

// ---- The writer thread ----

void CBBLog::writeRun(std::deque<CStdStr>& lines, std::vector<LogLineQueue::Completion>& done) {
    if (!writesLineByLine()) {
        mainLog.writeRun(lines, done);
        return;
    }
    size_t next = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        logLineToFile(lines[i]);
        mainLog.complete(done, next, i + 1, i + 1, 0);
    }
}

void CBBLog::logLineToFile(const CStdStr& line) { mainLog.writeLine(line); }

void CBBLog::reportFailure(const CStdStr& text) {
    const boost::shared_ptr<CBBLog> own = DefaultLogger::get();
    if (own && own.get() != this && own->isWritable()) {
        CBBLog::error(own, "%s", text.c_str());
        return;
    }
    // journald keeps what a service writes to standard error.
    fprintf(stderr, "%s: %s: %s\n", kReportPrefix, lineFormat.shortName().c_str(), text.c_str());
}
