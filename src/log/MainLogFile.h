// SPDX-License-Identifier: MIT
// MainLogFile: a logger's own rotating file as its writer thread keeps it. Opens it
// (retrying a failed open at most every kOpenRetryMs), follows it when another process
// deleted or rotated it, rotates it at the size limit (a failed rotation is reported in
// errors.log), writes runs of lines with as few writev calls as the size rule allows,
// tells each text's completion how it went, and reports failures and recovery through
// `report` at most every kReportIntervalMs. The file rules themselves are
// RotatingLogFile's. Writer thread only, except where a member says otherwise.
#pragma once

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <vector>

#include <sys/uio.h>

#include "ErrorLogFile.h"
#include "LogFileIo.h"
#include "LogLineFormat.h"
#include "LogLineQueue.h"
#include "RotatingLogFile.h"
#include "StdString.h"

class MainLogFile {
public:
    using Completion = LogLineQueue::Completion;
    // Where reports of failures and of recovery go; writer thread.
    using Report = std::function<void(const CStdStr& text)>;

    // The least time between two attempts to open a file that could not be opened.
    static constexpr long long kOpenRetryMs = 500;
    // The least time between two reports of the file's failures.
    static constexpr long long kReportIntervalMs = 10000;

    // `format` and `errorLog` are borrowed and outlive this; the file rotates at
    // `maxSize` bytes.
    MainLogFile(const LogLineFormat& format, ErrorLogFile& errorLog, long long maxSize,
                Report report);
    MainLogFile(const MainLogFile&) = delete;
    MainLogFile& operator=(const MainLogFile&) = delete;
    ~MainLogFile() { close(); }

    // Before the writer starts: the file's path and the system calls made on it.
    void setPath(const CStdStr& path) { path_ = path; }
    void setIo(std::shared_ptr<LogFileIo> io) { io_ = std::move(io); }
    // Any thread once set.
    const CStdStr& path() const { return path_; }

    // Opens the file unless it is open or a retry is not yet due (creating the logs
    // folder first); returns its descriptor or -1.
    int open();
    // Writes a run of lines, calling their completions in order.
    void writeRun(std::deque<CStdStr>& lines, std::vector<Completion>& done);
    // Writes one line (rotating, reopening and reporting as writeRun does).
    void writeLine(const CStdStr& line);
    // Calls the completions of lines[.., end) from done[next..]: those before
    // `failedFrom` with success, the others with `error` and a message for `action`.
    void complete(std::vector<Completion>& done, size_t& next, size_t end, size_t failedFrom,
                  int error, const char* action = "write") const;
    // "cannot <action> '<path>': <reason>". Any thread once the path is set.
    CStdStr failureMessage(const char* action, int error) const;
    // Closes the file; once the writer has ended.
    void close();

    // Any thread: size of the open file in bytes, -1 when it is not open; false after a
    // failed write until the next success.
    long long size() const;
    bool writable() const { return writable_.load(); }

private:
    // The descriptor ready for the next write (rotated when due, reopened when moved
    // away, opened when a retry is due), or -1; `size` is the file's size then (-1:
    // unknown).
    int prepare(long long& size);
    // writeParts of RotatingLogFile; a failure to cut a torn text off is reported.
    size_t writeParts(int fd, iovec* part, int count, int& error);
    // Notes the outcome of a run of `texts` lines and reports failures, and the return
    // to normal, at most every kReportIntervalMs.
    void noteOutcome(int error, const CStdStr& message, size_t texts);

    const LogLineFormat& format_;
    ErrorLogFile& errorLog_;
    const long long maxSize_;
    const Report report_;
    // Set before the writer starts.
    CStdStr path_;
    std::shared_ptr<LogFileIo> io_ = LogFileIo::system();
    // Written by the writer thread only (it reopens the file); read by size().
    std::atomic<int> fd_{-1};
    std::atomic<bool> writable_{true};
    // Writer thread only.
    LogFileState state_;
    bool failing_ = false;           // the last run failed
    long long failureReportAt_ = 0;  // no new failure report before this (ms)
    size_t unreportedFailures_ = 0;  // texts failed since the last report
};
