// SPDX-License-Identifier: MIT
// CBBLog: the suite's asynchronous, size-rotating file logger. Each instance owns one
// log file in the logs folder and shares "errors.log" there with every process of the
// suite. Callers format a line on their own thread and queue it; a writer thread owned
// by the instance appends queued lines to the file. FATAL lines are in addition written
// synchronously into "errors.log". Any thread may log; see docs/logging.md.
#pragma once

#include <atomic>
#include <cstdarg>
#include <deque>
#include <memory>

#include <boost/format.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "PCondMutex.h"
#include "PMutex.h"
#include "StdString.h"

class PThread;

// Message levels; a smaller number is more severe. A logger writes a message when the
// message's level is not greater than its own level.
enum LOGLEVEL : int { FATAL = 0, ERROR = 1, WARN = 2, INFO = 3, DEBUG = 4 };

class CBBLog {
public:
    // Size of the buffers the message text and the line header are formatted into; a
    // longer text is cut to kFormatBufferSize - 1 bytes (a line is never split).
    static constexpr size_t kFormatBufferSize = 20480;
    // The level a logger has before it was read from the settings.
    static constexpr LOGLEVEL kLevelUnset = static_cast<LOGLEVEL>(-1);

    // Stores the settings; opens nothing and starts nothing until the first line.
    // `logName` is the file name inside the logs folder (callers pass "<module>.log");
    // `withPid` puts the process id into every header; a file whose size has reached
    // `rotateSize` bytes is renamed to "<name>.back" before the next line is written.
    CBBLog(const CStdStr& logName, bool withPid, long long rotateSize);
    CBBLog(const CBBLog&) = delete;
    CBBLog& operator=(const CBBLog&) = delete;
    // Stops the writer thread after it wrote every queued line, then closes the files.
    // A derived class that overrides logLineToFile must call stopWriter() in its own
    // destructor, so that no line reaches a half-destroyed object.
    virtual ~CBBLog();

    // Queue a printf-style message at DEBUG, or at the given level. Any thread; never
    // blocks on the disk. The first line opens the files and starts the writer thread;
    // only a failure to start that thread throws (std::runtime_error).
    virtual void AddLog(const char* format, ...) __attribute__((format(printf, 2, 3)));
    virtual void AddLog(LOGLEVEL messageLevel, const char* format, ...)
        __attribute__((format(printf, 3, 4)));
    // Queues `text` as it is: no header, no newline, no level test (null queues an empty
    // line). Dropped when the main log could not be opened.
    virtual void AddRawLog(const char* text);
    // Sets the most verbose level written; not checked.
    virtual void setLogLevel(LOGLEVEL newLevel);

    // Format and queue one message when `messageLevel` is enabled, reading the level
    // from the settings first if it is still unset; FATAL lines also go to _FatalError.
    virtual void _AddLog(const boost::format& format, LOGLEVEL messageLevel);
    virtual void _AddLog(const char* format, va_list args, LOGLEVEL messageLevel);

protected:
    // Writer thread only: rotates the main log when due and appends `line` in one write.
    virtual void logLineToFile(const CStdStr& line);

public:
    // Appends `line` (a complete line) to "errors.log" at once, on the caller's thread,
    // under fileMutex; opens the files first if needed. Runs in: normal context, or
    // crash context once the logger is initialised: it then allocates nothing and uses
    // only system calls and fileMutex (a crash while this thread holds fileMutex, that
    // is inside this function or initialize(), would deadlock a second call).
    virtual void _FatalError(const CStdStr& line);

    // Instance forms: each compares with the stored level only, so while the level is
    // still unset they write nothing and do not read the settings.
    void _fatal(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _error(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _warn(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _info(const char* format, ...) __attribute__((format(printf, 2, 3)));
    void _debug(const char* format, ...) __attribute__((format(printf, 2, 3)));

    // Opens the files and starts the writer thread; later calls do nothing. A file that
    // cannot be opened is reported on standard output and never retried. Throws only
    // when the writer thread cannot be started.
    void initialize();
    // Reads "LogLevel" under "Software\Pellix\Nimb"; ERROR when missing.
    void readLogLevel();
    LOGLEVEL getLogLevel() const { return level.load(std::memory_order_relaxed); }
    // The lines queued but not yet taken by the writer thread, concatenated.
    CStdStr getLogs();
    // Size of the open main log in bytes; -1 when it is not open.
    long long getFileSize() const;
    const CStdStr& getLogPath() const { return logPath; }
    const CStdStr& getErrorLogPath() const { return errorLogPath; }

    // Opens `path` write-only for appending, creating it with mode 0666 (and truncating
    // when asked), as the logger opens its own files; also used by the crash path to
    // open the log files beforehand. Returns false with errno set on failure.
    static bool openFile(int& fd, const CStdStr& path, bool truncate);
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
    // The header of a line at `messageLevel`, from the wall clock; FATAL headers are
    // followed by the short name and " - ".
    CStdStr buildLineHeader(LOGLEVEL messageLevel) const;
    // Before a write to `fd`: reopens `path` when the file was deleted or rotated by
    // another process, and renames it to `path`.back when it has reached maxSize.
    void rotateIfNeeded(int& fd, const CStdStr& path);

private:
    void* loggerThread(void*);
    // Adds the header and the newline to `text` and hands the line on.
    void emitLine(const char* text, size_t length, LOGLEVEL messageLevel);
    void addQueue(CStdStr line);
    void writeLines(std::deque<CStdStr>& lines);
    void writeBatched(std::deque<CStdStr>& lines);
    long long rotateAndGetSize(int& fd, const CStdStr& path);
    static void dispatch(const boost::shared_ptr<CBBLog>& log, LOGLEVEL messageLevel,
                         const char* format, va_list args);
    static void dispatch(const boost::shared_ptr<CBBLog>& log, LOGLEVEL messageLevel,
                         const boost::format& format);
    static void forward(const boost::shared_ptr<CBBLog>& log, LOGLEVEL messageLevel,
                        const char* format, ...);
    static bool isEnabled(LOGLEVEL messageLevel);

    // Immutable after construction.
    CStdStr name;
    // Unset (-1) until read from the settings or set; written by any thread.
    std::atomic<LOGLEVEL> level{kLevelUnset};
    // Set last by initialize(), under fileMutex; everything initialize() writes is
    // read-only once this reads true.
    std::atomic<bool> initialized{false};
    bool logOpen = false;
    bool errorLogOpen = false;
    CStdStr logPath;
    CStdStr errorLogPath;
    CStdStr shortName;
    // Guards initialize() and the synchronous writes to "errors.log".
    PMutex fileMutex;
    // Immutable after construction.
    bool showPid = false;
    long long maxSize = 0;
    unsigned pid = 0;
    // Written by the writer thread only (it reopens the file); read by getFileSize().
    std::atomic<int> logFd{-1};
    int errorFd NIMB_GUARDED_BY(fileMutex) = -1;
    // Started by initialize(), joined by stopWriter().
    std::unique_ptr<PThread> thread;
    PCondMutex queueLock;
    bool stop NIMB_GUARDED_BY(queueLock) = false;
    std::deque<CStdStr> queue NIMB_GUARDED_BY(queueLock);

    // The default logger; read and replaced under a process-wide lock, so that taking a
    // reference is safe against a concurrent setLogger().
    static boost::weak_ptr<CBBLog> s_instance;
};
