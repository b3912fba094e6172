// SPDX-License-Identifier: MIT
// CBBLog file side: opening the files, rotation, the batched writes of the writer
// thread, and what happens when any of them fails (the texts' completions, the
// reports). Every system call on a file goes through `io`.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <typeinfo>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CBBLog.h"

namespace {

const char* const kReportPrefix = "nimb-log";
// The most lines one batched write hands to the kernel (the writev limit).
constexpr size_t kMaxLinesPerWrite = IOV_MAX;

}  // namespace

void CBBLog::prepareProcess() { RotatingLogFile::prepareProcess(); }

// ---- Opening ----

bool CBBLog::openFile(int& fd, const CStdStr& path, bool truncate) {
    return openLogFile(*io, fd, path, truncate);
}

bool CBBLog::openLogFile(LogFileIo& io, int& fd, const CStdStr& path, bool truncate) {
    return RotatingLogFile::open(io, fd, path, truncate);
}

int CBBLog::openMainLog() {
    int fd = logFd.load();
    if (fd != -1) return fd;
    const long long now = io->nowMs();
    if (mainState.openError != 0 && now < mainState.openRetryAt) return -1;
    makeLogsFolder();
    if (logPath.empty() || !openFile(fd, logPath, false)) {
        const int error = logPath.empty() ? ENOENT : errno;
        if (mainState.openError == 0) {
            printf("Error: could not open log file '%s': %d\n", logPath.c_str(), error);
            fflush(stdout);
        }
        mainState.openError = error;
        mainState.openRetryAt = now + kOpenRetryMs;
        return -1;
    }
    mainState.openError = 0;
    logFd.store(fd);
    logOpen.store(true);
    return fd;
}

void CBBLog::makeLogsFolder() const {
    // The folder may have vanished since the last open; an existing one is fine, and a
    // failure shows in the open that follows.
    const size_t slash = errorLogPath.rfind('/');
    if (slash == CStdStr::npos || slash == 0) return;
    char folder[PATH_MAX];
    if (slash >= sizeof(folder)) return;
    memcpy(folder, errorLogPath.data(), slash);
    folder[slash] = '\0';
    mkdir(folder, kFolderMode);
}

void CBBLog::openErrorLogLocked() {
    if (errorFd != -1 || errorLogPath.empty()) return;
    makeLogsFolder();
    if (!openFile(errorFd, errorLogPath, false)) {
        const int error = errno;
        if (errorState.openError == 0) {
            // Names the main log's path, as this message always has.
            printf("Error: could not open error log file '%s': %d\n", logPath.c_str(), error);
            fflush(stdout);
        }
        errorState.openError = error;
        return;
    }
    errorState.openError = 0;
    errorLogOpen.store(true);
}

// ---- Rotation ----

void CBBLog::rotateIfNeeded(int& fd, const CStdStr& path, FileState& state) {
    rotateAndGetSize(fd, path, state);
}

// Uses system calls only, so the synchronous error-log path stays free of allocations.
long long CBBLog::rotateAndGetSize(int& fd, const CStdStr& path, FileState& state) {
    return RotatingLogFile::rotateAndGetSize(*io, fd, path, maxSize, state);
}

size_t CBBLog::formatRotationReport(char* out, size_t size, const CStdStr& path, int error) const {
    char reason[256];
    const char* text = strerror_r(error, reason, sizeof(reason));
    const size_t header = formatHeader(out, size, ERROR);
    const int length = snprintf(out + header, size - header,
                                "%s - cannot rotate '%s' to '%s%s': %s; appending to it, next "
                                "attempt in %lld s\n",
                                shortName.c_str(), path.c_str(), path.c_str(),
                                RotatingLogFile::kBackupSuffix, text, kRotateRetryMs / 1000);
    return std::min(header + static_cast<size_t>(std::max(length, 0)), size - 1);
}

void CBBLog::writeErrorLogLocked(const char* line, size_t length) {
    rotateAndGetSize(errorFd, errorLogPath, errorState);
    errorLogOpen.store(errorFd != -1);
    if (errorFd == -1) return;
    const long long now = io->nowMs();
    if (errorState.rotateError != 0 && now >= errorState.rotateReportAt) {
        char report[1024];
        const size_t reportLength =
            formatRotationReport(report, sizeof(report), errorLogPath, errorState.rotateError);
        if (io->write(errorFd, report, reportLength) < 0) {
            // Lost like the line below would be.
        }
        errorState.rotateReportAt = now + kReportIntervalMs;
    }
    errorState.rotateError = 0;
    if (io->write(errorFd, line, length) < 0) {
        // Not retried: a line that cannot be written is lost, as any other.
    }
}

// ---- The writer thread's writes ----

void CBBLog::writeLines(std::deque<CStdStr>& lines, std::vector<Completion>& done) {
    // A derived logger sees every line through its own logLineToFile; a plain logger
    // writes runs of lines at once.
    if (typeid(*this) == typeid(CBBLog)) {
        writeBatched(lines, done);
        return;
    }
    size_t next = 0;
    for (size_t i = 0; i < lines.size(); ++i) {
        logLineToFile(lines[i]);
        complete(done, next, i + 1, i + 1, 0);
    }
}

void CBBLog::logLineToFile(const CStdStr& line) {
    long long size = -1;
    const int fd = prepareMainLog(size);
    if (fd == -1) {
        noteOutcome(mainState.openError, failureMessage("open", mainState.openError), 1);
        return;
    }
    iovec part{const_cast<char*>(line.data()), line.size()};
    int error = 0;
    writeParts(fd, &part, 1, error);
    noteOutcome(error, error != 0 ? failureMessage("write", error) : CStdStr(), 1);
}

int CBBLog::prepareMainLog(long long& size) {
    int fd = logFd.load();
    size = rotateAndGetSize(fd, logPath, mainState);
    logFd.store(fd);
    logOpen.store(fd != -1);
    if (mainState.rotateError != 0) {
        const long long now = io->nowMs();
        if (now >= mainState.rotateReportAt) {
            char report[1024];
            const size_t length =
                formatRotationReport(report, sizeof(report), logPath, mainState.rotateError);
            PMutexLocker lock(fileMutex);
            openErrorLogLocked();
            if (errorFd != -1) writeErrorLogLocked(report, length);
            if (errorFd == -1)
                fprintf(stderr, "%s: %.*s", kReportPrefix, static_cast<int>(length), report);
            mainState.rotateReportAt = now + kReportIntervalMs;
        }
        mainState.rotateError = 0;
    }
    if (fd == -1) {
        fd = openMainLog();
        struct stat info {};
        size = fd != -1 && io->fstat(fd, &info) == 0 ? info.st_size : -1;
    }
    return fd;
}

// Writes the same bytes in the same order as one logLineToFile per line, with fewer
// system calls: after each rotation check, the lines that follow are gathered into one
// writev as long as the size the file would have before each of them stays below
// maxSize, that is, as long as logLineToFile would not rotate before that line. The
// run ends at the line that crosses the limit, so the next run starts with a rotation.
// While a failed rotation is backing off there is no limit to a run. What is checked
// once per run instead of per line is whether another process deleted or rotated the
// file meanwhile; lines written in that window land in the old file, just as a line
// written between the check and the write does in the per-line case.
void CBBLog::writeBatched(std::deque<CStdStr>& lines, std::vector<Completion>& done) {
    iovec parts[kMaxLinesPerWrite];
    size_t next = 0;
    size_t nextDone = 0;
    while (next < lines.size()) {
        long long size = -1;
        const int fd = prepareMainLog(size);
        const bool limited = mainState.rotateRetryAt == 0 || io->nowMs() >= mainState.rotateRetryAt;
        const size_t first = next;
        long long pending = 0;
        int count = 0;
        do {
            CStdStr& line = lines[next++];
            parts[count++] = {line.data(), line.size()};
            pending += static_cast<long long>(line.size());
        } while (next < lines.size() && next - first < kMaxLinesPerWrite &&
                 (fd == -1 || (size >= 0 && (!limited || size + pending < maxSize))));
        if (fd == -1) {
            const int error = mainState.openError;
            noteOutcome(error, failureMessage("open", error), next - first);
            complete(done, nextDone, next, first, error, "open");
            continue;
        }
        int error = 0;
        const size_t written = writeParts(fd, parts, count, error);
        noteOutcome(error, error != 0 ? failureMessage("write", error) : CStdStr(),
                    next - first - written);
        complete(done, nextDone, next, first + written, error, "write");
    }
}

size_t CBBLog::writeParts(int fd, iovec* part, int count, int& error) {
    int cutError = 0;
    const size_t whole = RotatingLogFile::writeParts(*io, fd, part, count, error, cutError);
    if (cutError != 0) {
        reportFailure("Log file failure: " + failureMessage("cut a torn line off", cutError));
    }
    return whole;
}

// ---- Outcomes and reports ----

void CBBLog::complete(std::vector<Completion>& done, size_t& next, size_t end, size_t failedFrom,
                      int error, const char* action) {
    CStdStr message;
    for (; next < done.size() && done[next].index < end; ++next) {
        if (done[next].index < failedFrom) {
            done[next].done(0, CStdStr());
            continue;
        }
        if (message.empty()) message = failureMessage(action, error);
        done[next].done(error, message);
    }
}

CStdStr CBBLog::failureMessage(const char* action, int error) const {
    char reason[256];
    // The GNU strerror_r returns the text, which need not be in `reason`.
    const char* text = strerror_r(error, reason, sizeof(reason));
    if (strcmp(action, "open") == 0 && RotatingLogFile::isNotARegularFile(error)) {
        return "cannot open '" + logPath + "': not a regular file (" + text + ")";
    }
    return CStdStr("cannot ") + action + " '" + logPath + "': " + text;
}

void CBBLog::noteOutcome(int error, const CStdStr& message, size_t texts) {
    if (error == 0) {
        writable.store(true);
        if (failing) {
            reportFailure("Log file recovered: '" + logPath +
                          "' is written again (texts not written before: " +
                          std::to_string(unreportedFailures) + ")");
        }
        failing = false;
        unreportedFailures = 0;
        failureReportAt = 0;
        return;
    }
    writable.store(false);
    failing = true;
    unreportedFailures += texts;
    const long long now = io->nowMs();
    if (now < failureReportAt) return;
    reportFailure("Log file failure: " + message +
                  " (texts not written: " + std::to_string(unreportedFailures) + ")");
    unreportedFailures = 0;
    failureReportAt = now + kReportIntervalMs;
}

void CBBLog::reportFailure(const CStdStr& text) {
    const boost::shared_ptr<CBBLog> own = getLogger();
    if (own && own.get() != this && own->writable.load()) {
        CBBLog::error(own, "%s", text.c_str());
        return;
    }
    // journald keeps what a service writes to standard error.
    fprintf(stderr, "%s: %s: %s\n", kReportPrefix, shortName.c_str(), text.c_str());
}

long long CBBLog::getFileSize() const {
    struct stat info {};
    if (sink) return stat(sink->path().c_str(), &info) == 0 ? info.st_size : -1;
    const int fd = logFd.load();
    if (fd == -1 || fstat(fd, &info) != 0) return -1;
    return info.st_size;
}
