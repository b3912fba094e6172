// SPDX-License-Identifier: MIT
// CBBLog: the suite's asynchronous, size-rotating file logger. Each instance owns one
// log file in the logs folder and shares "errors.log" there with every process of the
// suite. Callers format a line on their own thread and queue it; a writer thread owned
// by the instance appends queued lines to the file. FATAL lines are in addition written
// synchronously into "errors.log". Any thread may log; see docs/logging.md. Files are
// opened by the writer thread (errors.log also by the FATAL path), never by a caller.
// Errors: logging never throws and never blocks on a failing disk. A text that cannot be
// written is reported to its completion (AddRawLog's WriteDone) with the errno and a
// message naming the file, and at a bounded rate in errors.log, or on standard error
// when that cannot be written either; a failed open or rotation is retried later.
// CBBLog is the facade over its parts: LogLineFormat (how lines look), LogLineQueue (the
// queue and the writer thread), MainLogFile (the rotating file the writer keeps),
// ErrorLogFile (the synchronous errors.log writer) and DefaultLogger (the process-wide
// default logger the static functions write to).
#pragma once

#include <atomic>
#include <cstdarg>
#include <functional>
#include <memory>

#include <boost/format.hpp>
#include <boost/shared_ptr.hpp>

#include "CBBLogSink.h"
#include "ErrorLogFile.h"
#include "LogFileIo.h"
#include "LogLineFormat.h"
#include "LogLineQueue.h"
#include "MainLogFile.h"
#include "PMutex.h"
#include "RotatingLogFile.h"
#include "StdString.h"

class CBBLog {
public:
    // Size of the buffers the message text and the line header are formatted into; a
    // longer text is cut to kFormatBufferSize - 1 bytes (a line is never split).
    static constexpr size_t kFormatBufferSize = LogLineFormat::kBufferSize;
    // The level a logger has before it was read from the settings.
    static constexpr LOGLEVEL kLevelUnset = static_cast<LOGLEVEL>(-1);
    // The outcome of one queued text: 0 when the whole text reached the kernel (write or
    // writev returned all of it), else the errno that stopped it; `message` then names the
    // file and the reason, as "cannot write '<path>': <reason>". Must not throw.
    using WriteDone = LogLineQueue::WriteDone;

    // Stores the settings; opens nothing and starts nothing until the first line.
    // `logName` is the file name inside the logs folder (callers pass "<module>.log");
    // `withPid` puts the process id into every header; a file whose size has reached
    // `rotateSize` bytes is renamed to "<name>.back" before the next line is written.
    CBBLog(const CStdStr& logName, bool withPid, long long rotateSize);
    // The same, but the texts go to `sink` (taken; not null), which writes them into its
    // file, instead of to a writer thread and file of this logger's own: such a logger
    // starts no thread and opens nothing itself (its FATAL lines still reach
    // errors.log). `rotateSize` is then the sink's business.
    CBBLog(const CStdStr& logName, bool withPid, long long rotateSize,
           std::shared_ptr<CBBLogSink> sink);
    CBBLog(const CBBLog&) = delete;
    CBBLog& operator=(const CBBLog&) = delete;
    // Stops the writer thread after it wrote every queued line, then closes the files.
    // A derived class that writes lines itself (writesLineByLine) must call stopWriter()
    // in its own destructor, so that no line reaches a half-destroyed object.
    virtual ~CBBLog();

    // Queue a printf-style message at DEBUG, or at the given level. Any thread; never
    // blocks on the disk. The first line starts the writer thread, which opens the
    // files; only a failure to start that thread throws (std::runtime_error).
    virtual void AddLog(const char* format, ...) __attribute__((format(printf, 2, 3)));
    virtual void AddLog(LOGLEVEL messageLevel, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    // Queues `text` as it is: no header, no newline, no level test (null queues an empty
    // line). Dropped when the main log cannot be opened or written.
    virtual void AddRawLog(const char* text);
    // Sets the most verbose level written; not checked.
    virtual void setLogLevel(LOGLEVEL newLevel);

    // Format and queue one message when `messageLevel` is enabled, reading the level
    // from the settings first if it is still unset; FATAL lines also go to _FatalError.
    virtual void _AddLog(const boost::format& format, LOGLEVEL messageLevel);
    virtual void _AddLog(const char* format, va_list args, LOGLEVEL messageLevel);

protected:
    // Writer thread only, and only for a logger whose writesLineByLine() is true: opens
    // or rotates the main log when due and appends `line`.
    virtual void logLineToFile(const CStdStr& line);
    // Whether the writer hands the lines to logLineToFile one at a time. False for a
    // plain logger, which writes runs of lines with one writev each; a derived class
    // that overrides logLineToFile returns true.
    virtual bool writesLineByLine() const { return false; }

public:
    // Appends `line` (a complete line) to "errors.log" at once, on the caller's thread,
    // opening errors.log first if it is not open. Runs in: normal context, or crash
    // context once the logger is initialised and errors.log is open: it then allocates
    // nothing and uses only system calls and the error log's mutex (see ErrorLogFile).
    virtual void _FatalError(const CStdStr& line);

    // Queues `text` like AddRawLog(const char*) and calls `done` exactly once: on the
    // writer thread after the write of the batch holding the text succeeded or failed
    // (a file that cannot be opened fails it there too), or at once on the calling thread
    // when the logger cannot take it (stopped: ECANCELED; no memory: ENOMEM; no writer
    // thread: EAGAIN). Any thread; never blocks on the disk; never throws. A text that
    // fails leaves nothing of itself in the file. A derived logger that overrides
    // logLineToFile reports success once its logLineToFile returned.
    virtual void AddRawLog(CStdStr text, WriteDone done);
    // The same with the outcome told to `listener` (may be null), which costs no
    // allocation of its own when the logger writes through a sink; `info` goes to the
    // sink with the text (a logger without a sink ignores it).
    void AddRawLog(CStdStr text, const std::shared_ptr<LogWriteListener>& listener,
                   const LogTextInfo& info = LogTextInfo());

    // Instance forms: each compares with the stored level only, so while the level is
    // still unset they write nothing and do not read the settings.
    void _fatal(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _error(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _warn(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _info(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _debug(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Sets the paths up and starts the writer thread, which opens the files; later calls
    // do nothing (also while another thread is inside it: they wait for it). A file that cannot be
    // opened is reported on standard output when a failure begins, and the open is retried on later
    // lines at most every kOpenRetryMs. Throws only when the writer thread cannot be started.
    void initialize();
    // Reads "LogLevel" under "Software\Pellix\Nimb"; ERROR when missing.
    void readLogLevel();
    LOGLEVEL getLogLevel() const { return level.load(std::memory_order_relaxed); }
    // False after a failed write to the main log until the next success.
    bool isWritable() const { return mainLog.writable(); }
    // Size of the open main log in bytes; -1 when it is not open.
    long long getFileSize() const;
    const CStdStr& getLogPath() const { return mainLog.path(); }
    const CStdStr& getErrorLogPath() const { return errorLog.path(); }

    // Replaces the system calls made on the files; call before the first line. Tests use
    // it to make chosen calls fail.
    void setFileIoForTesting(std::shared_ptr<LogFileIo> fileIo);

    // The least time between two attempts to open a file that could not be opened.
    static constexpr long long kOpenRetryMs = MainLogFile::kOpenRetryMs;
    // The least time between two attempts to rotate a file whose rotation failed.
    static constexpr long long kRotateRetryMs = RotatingLogFile::kRotateRetryMs;
    // The least time between two reports of one file's failures.
    static constexpr long long kReportIntervalMs = MainLogFile::kReportIntervalMs;
    // Mode of the files this logger creates, and the group they are given when the
    // system has it; files that already exist keep their mode and group.
    static constexpr mode_t kFileMode = RotatingLogFile::kFileMode;
    static constexpr const char* kFileGroup = RotatingLogFile::kFileGroup;
    // Mode of the logs folder when the logger has to create it.
    static constexpr mode_t kFolderMode = ErrorLogFile::kFolderMode;
    // Opens `path` through `io` as the logger opens its files; for a writer outside it that
    // must append to the same files, such as the crash path, which opens them
    // beforehand. Runs in: normal context.
    static bool openLogFile(LogFileIo& io, int& fd, const CStdStr& path, bool truncate);
    // The logs folder (the "LogsDir" setting, else the system default).
    static CStdStr getLogsDirectory();
    // Local time now as "YYYY/MM/DD hh:mm:ss.mmm".
    static CStdStr getTimeString();

    // The process-wide default logger, held weakly: installing one never keeps it alive
    // and a destroyed default logger makes the static functions below do nothing.
    static void setLogger(boost::shared_ptr<CBBLog> logger);
    static boost::shared_ptr<CBBLog> getLogger();

    // Messages to the default logger (any thread). A logger whose level is unset reads
    // it from the settings on its first message.
    static void fatal(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void warn(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // `args` is borrowed and left usable. A literal 0 as the only argument after the
    // format (debug("n: %d", 0)) selects this overload; it is formatted as that zero.
    static void debug(const char* format, va_list args);
    static void fatal(const boost::format& format);
    static void error(const boost::format& format);
    static void warn(const boost::format& format);
    static void info(const boost::format& format);
    static void debug(const boost::format& format);
    // The same to a given logger instead of the default (null does nothing).
    static void fatal(boost::shared_ptr<CBBLog> log, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    static void error(boost::shared_ptr<CBBLog> log, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    static void warn(boost::shared_ptr<CBBLog> log, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    static void info(boost::shared_ptr<CBBLog> log, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    static void debug(boost::shared_ptr<CBBLog> log, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    // True when a default logger exists and its level is unset or at least WARN, INFO
    // or DEBUG respectively.
    static bool isWarnEnabled();
    static bool isInfoEnabled();
    static bool isDebugEnabled();

protected:
    // Tells the writer thread to stop once the queue is empty and waits for it. Safe to
    // call more than once; called by the destructor.
    void stopWriter();

private:
    // Adds the header and the newline to `text` and hands the line on.
    void emitLine(const char* text, size_t length, LOGLEVEL messageLevel);
    // Queues `line` (echoing it); with `done`, also its completion. Returns false, with
    // nothing queued, when the writer has stopped.
    bool addQueue(CStdStr line, WriteDone* done = nullptr);
    // Hands `line` to the sink and echoes it; false when the sink has stopped.
    bool addToSink(CStdStr line, const std::shared_ptr<LogWriteListener>& listener,
                   const LogTextInfo& info = LogTextInfo());
    // Writer thread: writes one run taken from the queue.
    void writeRun(std::deque<CStdStr>& lines, std::vector<LogLineQueue::Completion>& done);
    // Writes `text` into the process's own log (the default logger) unless that is this
    // logger or cannot be written either: then to standard error.
    void reportFailure(const CStdStr& text);

    // Immutable after construction.
    const CStdStr name;
    const LogLineFormat lineFormat;
    // Where the texts go instead of this logger's own writer thread (null: the logger
    // writes its file itself). Such a logger starts no thread and opens nothing itself.
    const std::shared_ptr<CBBLogSink> sink;
    // Unset (-1) until read from the settings or set; written by any thread.
    std::atomic<LOGLEVEL> level{kLevelUnset};
    // Guards initialize(); `initialized` is set last, and everything initialize() writes
    // is read-only once it reads true.
    PMutex initMutex;
    std::atomic<bool> initialized{false};
    ErrorLogFile errorLog;
    MainLogFile mainLog;
    LogLineQueue queue;
    // Serialises the echo of a logger that writes through a sink (the queue does that
    // for the others), so that its echoed lines never interleave.
    PMutex sinkEchoLock;
};
