// SPDX-License-Identifier: MIT
// ErrorLogFile: one logger's handle on the shared "errors.log" of the logs folder, which
// every logger of every process appends to. Lines are written at once, on the caller's
// thread, under the handle's own mutex: FATAL lines, and reports of failed rotations
// (of the logger's own file, or of errors.log itself). Opened by the logger's writer
// thread when it starts, or by the first line written, and rotated like any log file.
// Once open, append() uses only system calls and that mutex and allocates nothing, so
// it may run on a crash path (a crash while this thread holds the mutex, that is inside
// append() or open(), would deadlock a second call).
#pragma once

#include <atomic>
#include <memory>

#include "LogFileIo.h"
#include "LogLineFormat.h"
#include "PMutex.h"
#include "RotatingLogFile.h"
#include "StdString.h"

class ErrorLogFile {
public:
    static constexpr const char* kFileName = "errors.log";
    // Mode of the logs folder when it has to be created.
    static constexpr mode_t kFolderMode = 0775;
    // The least time between two reports of a failed rotation of errors.log.
    static constexpr long long kReportIntervalMs = 10000;

    // `format` (borrowed, outlives this) makes the report of a failed rotation; the file
    // rotates at `maxSize` bytes.
    ErrorLogFile(const LogLineFormat& format, long long maxSize);
    ErrorLogFile(const ErrorLogFile&) = delete;
    ErrorLogFile& operator=(const ErrorLogFile&) = delete;
    ~ErrorLogFile() { close(); }

    // Before the first open: errors.log in `logsFolder` (empty: none), and the path
    // named when the open fails (the logger's main log, as that message always has).
    void setPaths(const CStdStr& logsFolder, const CStdStr& namedOnFailure);
    // Before the first open: the system calls made on the file.
    void setIo(std::shared_ptr<LogFileIo> io) { io_ = std::move(io); }
    const CStdStr& path() const { return path_; }

    // Opens the file unless it is open; reports a failure on standard output when a
    // failure begins.
    void open() NIMB_EXCLUDES(mutex_);
    // Appends `line` (complete, with its newline), opening the file first when it is not
    // open and rotating it when due; a failed rotation of errors.log is reported into it
    // at most every kReportIntervalMs. Returns whether the file is open afterwards (a
    // line that cannot be written is lost).
    bool append(const char* line, size_t length) NIMB_EXCLUDES(mutex_);
    void close() NIMB_EXCLUDES(mutex_);

    // Creates the logs folder when it is missing. Allocates nothing.
    void makeLogsFolder() const;

private:
    void openLocked() NIMB_REQUIRES(mutex_);

    const LogLineFormat& format_;
    const long long maxSize_;
    // Set before the first open, read-only afterwards.
    CStdStr path_;
    CStdStr namedOnFailure_;
    std::shared_ptr<LogFileIo> io_ = LogFileIo::system();
    PMutex mutex_;
    int fd_ NIMB_GUARDED_BY(mutex_) = -1;
    LogFileState state_ NIMB_GUARDED_BY(mutex_);
};
