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
#pragma once

#include <atomic>
#include <cstdarg>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include <boost/format.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "CBBLogSink.h"
#include "LogFileIo.h"
#include "PCondMutex.h"
#include "PMutex.h"
#include "RotatingLogFile.h"
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
    // The outcome of one queued text: 0 when the whole text reached the kernel (write or
    // writev returned all of it), else the errno that stopped it; `message` then names the
    // file and the reason, as "cannot write '<path>': <reason>". Must not throw.
    using WriteDone = std::function<void(int error, const CStdStr& message)>;

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
    // A derived class that overrides logLineToFile must call stopWriter() in its own
    // destructor, so that no line reaches a half-destroyed object.
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
    // Writer thread only: opens or rotates the main log when due and appends `line`.
    virtual void logLineToFile(const CStdStr& line);

public:
    // Appends `line` (a complete line) to "errors.log" at once, on the caller's thread,
    // under fileMutex; opens errors.log first if it is not open. Runs in: normal context, or
    // crash context once the logger is initialised: it then allocates nothing and uses
    // only system calls and fileMutex (a crash while this thread holds fileMutex, that
    // is inside this function or initialize(), would deadlock a second call).
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
    // do nothing. A file that cannot be opened is reported on standard output when a
    // failure begins, and the open is retried on later lines at most every
    // kOpenRetryMs. Throws only when the writer thread cannot be started.
    void initialize();
    // Reads "LogLevel" under "Software\Pellix\Nimb"; ERROR when missing.
    void readLogLevel();
    LOGLEVEL getLogLevel() const { return level.load(std::memory_order_relaxed); }
    // False after a failed write to the main log until the next success.
    bool isWritable() const { return writable.load(); }
    // The lines queued but not yet taken by the writer thread, concatenated.
    CStdStr getLogs();
    // Size of the open main log in bytes; -1 when it is not open.
    long long getFileSize() const;
    const CStdStr& getLogPath() const { return logPath; }
    const CStdStr& getErrorLogPath() const { return errorLogPath; }

    // Replaces the system calls made on the files; call before the first line. Tests use
    // it to make chosen calls fail.
    void setFileIoForTesting(std::shared_ptr<LogFileIo> fileIo);

    // The least time between two attempts to open a file that could not be opened.
    static constexpr long long kOpenRetryMs = 500;
    // The least time between two attempts to rotate a file whose rotation failed.
    static constexpr long long kRotateRetryMs = RotatingLogFile::kRotateRetryMs;
    // The least time between two reports of one file's failures.
    static constexpr long long kReportIntervalMs = 10000;
    // Mode of the files this logger creates, and the group they are given when the
    // system has it; files that already exist keep their mode and group.
    static constexpr mode_t kFileMode = RotatingLogFile::kFileMode;
    static constexpr const char* kFileGroup = RotatingLogFile::kFileGroup;
    // Mode of the logs folder when the logger has to create it.
    static constexpr mode_t kFolderMode = 0775;
    // Opens `path` through `io` as openFile() does; for a writer outside the logger that
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
    // The header of a line at `messageLevel`, from the wall clock; FATAL headers are
    // followed by the short name and " - ".
    CStdStr buildLineHeader(LOGLEVEL messageLevel) const;
    // Opens `path` write-only for appending (truncating when asked), creating it with
    // kFileMode and kFileGroup when it does not exist. Never follows a symbolic link,
    // never blocks on a FIFO, and refuses anything but a regular file (EINVAL). Returns
    // false with errno set on failure.
    bool openFile(int& fd, const CStdStr& path, bool truncate);
    // The open/rotate state of one file.
    using FileState = LogFileState;
    // Before a write to `fd`: reopens `path` when the file was deleted or rotated by
    // another process, and renames it to `path`.back when it has reached maxSize. A
    // rotation that fails leaves the file open for appending, is tried again only after
    // kRotateRetryMs, and is left in state.rotateError for the caller to report.
    void rotateIfNeeded(int& fd, const CStdStr& path, FileState& state);

private:
    void* loggerThread(void*);
    // Adds the header and the newline to `text` and hands the line on.
    void emitLine(const char* text, size_t length, LOGLEVEL messageLevel);
    // A queued text's completion: `index` is the text's position in the queue.
    struct Completion {
        size_t index = 0;
        WriteDone done;
    };
    // Queues `line` and echoes it; with `done`, also its completion. Returns false, with
    // nothing queued, when the writer has stopped.
    bool addQueue(CStdStr line, WriteDone* done = nullptr);
    // Hands `line` to the sink and echoes it; false when the sink has stopped.
    bool addToSink(CStdStr line, const std::shared_ptr<LogWriteListener>& listener,
                   const LogTextInfo& info = LogTextInfo());
    // Echoes `line` on standard output unless that is discarded; under queueLock.
    void echoLocked(const CStdStr& line) NIMB_REQUIRES(queueLock);
    void writeLines(std::deque<CStdStr>& lines, std::vector<Completion>& done);
    void writeBatched(std::deque<CStdStr>& lines, std::vector<Completion>& done);
    // Writer thread: the main log's descriptor ready for the next write (rotated when
    // due, reopened when moved away, opened when a retry is due), or -1; `size` is the
    // file's size then (-1: unknown).
    int prepareMainLog(long long& size);
    // Writes `count` parts (one per text) with as few writev calls as the kernel allows;
    // on a failure, cuts a partly written text off the file again. Returns the number
    // of texts written whole; `error` is the errno of the failure (0 when all were).
    size_t writeParts(int fd, iovec* part, int count, int& error);
    // Calls the completions of lines[.., end) from done[next..]: those before `failedFrom`
    // with success, the others with `error` and a message for `action`.
    void complete(std::vector<Completion>& done, size_t& next, size_t end, size_t failedFrom,
                  int error, const char* action = "write");
    // "cannot <action> '<path>': <reason>" for a failure on the main log.
    CStdStr failureMessage(const char* action, int error) const;
    // The rotation check; returns the size of the file `fd` then names (-1: unknown).
    long long rotateAndGetSize(int& fd, const CStdStr& path, FileState& state);
    // Writer thread: opens the main log unless it is open or a retry is not yet due
    // (creating the logs folder first); returns its descriptor or -1.
    int openMainLog();
    // Creates the logs folder when it is missing. Allocates nothing.
    void makeLogsFolder() const;
    // Opens errors.log unless it is open; reports a failure on standard output.
    void openErrorLogLocked() NIMB_REQUIRES(fileMutex);
    // Appends `line` to errors.log (rotating it first); reports a failed rotation of
    // errors.log into errors.log itself. Allocates nothing.
    void writeErrorLogLocked(const char* line, size_t length) NIMB_REQUIRES(fileMutex);
    // Formats into `out` the ERROR line for errors.log about a rotation of `path` that
    // failed with `error`; returns its length. Allocates nothing.
    size_t formatRotationReport(char* out, size_t size, const CStdStr& path, int error) const;
    // Formats the header of a line at `messageLevel` into `out` (without the FATAL
    // short name); returns its length. Allocates nothing.
    size_t formatHeader(char* out, size_t size, LOGLEVEL messageLevel) const;
    // Writer thread: notes the outcome of a run of `texts` lines on the main log and
    // reports failures, and the return to normal, at most every kReportIntervalMs.
    void noteOutcome(int error, const CStdStr& message, size_t texts);
    // Writes `text` into the process's own log (the default logger) unless that is this
    // logger or cannot be written either: then to standard error.
    void reportFailure(const CStdStr& text);
    static void dispatch(const boost::shared_ptr<CBBLog>& log, LOGLEVEL messageLevel,
                         const char* format, va_list args);
    static void dispatch(const boost::shared_ptr<CBBLog>& log, LOGLEVEL messageLevel,
                         const boost::format& format);
    static void forward(const boost::shared_ptr<CBBLog>& log, LOGLEVEL messageLevel,
                        const char* format, ...);
    static bool isEnabled(LOGLEVEL messageLevel);
    // Once per process, before the first file is opened: a write past the file size
    // limit fails with EFBIG instead of killing the process (SIGXFSZ is ignored unless
    // the process handles it), and the suite's group is looked up.
    static void prepareProcess();

    // Immutable after construction.
    CStdStr name;
    // Unset (-1) until read from the settings or set; written by any thread.
    std::atomic<LOGLEVEL> level{kLevelUnset};
    // Set last by initialize(), under fileMutex; everything initialize() writes is
    // read-only once this reads true.
    std::atomic<bool> initialized{false};
    // Whether the file is open now (the writer opens the main log; errors.log is opened
    // by the writer or the FATAL path).
    std::atomic<bool> logOpen{false};
    std::atomic<bool> errorLogOpen{false};
    // False after a failed write to the main log until the next success.
    std::atomic<bool> writable{true};
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
    FileState errorState NIMB_GUARDED_BY(fileMutex);
    // Immutable after construction: where the texts go instead of this logger's own
    // writer thread (null: the logger writes its file itself).
    const std::shared_ptr<CBBLogSink> sink;
    // Set before the first line; the system calls made on the files.
    std::shared_ptr<LogFileIo> io = LogFileIo::system();
    // Writer thread only.
    FileState mainState;
    bool failing = false;           // the last run on the main log failed
    long long failureReportAt = 0;  // no new failure report before this (ms)
    size_t unreportedFailures = 0;  // texts failed since the last report
    // Started by initialize(), joined by stopWriter().
    std::unique_ptr<PThread> thread;
    PCondMutex queueLock;
    bool stop NIMB_GUARDED_BY(queueLock) = false;
    std::deque<CStdStr> queue NIMB_GUARDED_BY(queueLock);
    // Completions of queued texts, in queue order (most lines have none).
    std::vector<Completion> completions NIMB_GUARDED_BY(queueLock);

    // The default logger; read and replaced under a process-wide lock, so that taking a
    // reference is safe against a concurrent setLogger().
    static boost::weak_ptr<CBBLog> s_instance;
};
