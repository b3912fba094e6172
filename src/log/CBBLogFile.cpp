// SPDX-License-Identifier: MIT
// CBBLog file side: opening the files, rotation, the batched writes of the writer
// thread, and what happens when any of them fails (the texts' completions, the
// reports). Every system call on a file goes through `io`.
#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <typeinfo>

#include <fcntl.h>
#include <grp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CBBLog.h"

namespace {

const char* const kBackupSuffix = ".back";
const char* const kReportPrefix = "nimb-log";
// The most lines one batched write hands to the kernel (the writev limit).
constexpr size_t kMaxLinesPerWrite = IOV_MAX;

// The suite's group, or -1 when the system has none of that name. Looked up once.
gid_t fileGroup() {
    static const gid_t gid = [] {
        group entry{};
        group* found = nullptr;
        char buffer[4096];
        getgrnam_r(CBBLog::kFileGroup, &entry, buffer, sizeof(buffer), &found);
        return found != nullptr ? found->gr_gid : static_cast<gid_t>(-1);
    }();
    return gid;
}

// Errors of an open that mean something other than a regular file is at the path.
bool isNotARegularFile(int error) {
    return error == EINVAL || error == ELOOP || error == EISDIR || error == ENXIO;
}

// Why the existing file at `path` may not be opened: 0 when it is a regular file (or
// vanished meanwhile: the open then says so), else the errno to report.
int refusalOf(const char* path) {
    struct stat info {};
    if (lstat(path, &info) != 0 || S_ISREG(info.st_mode)) return 0;
    return S_ISLNK(info.st_mode) ? ELOOP : S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
}

}  // namespace

void CBBLog::prepareProcess() {
    static std::once_flag once;
    std::call_once(once, [] {
        struct sigaction current {};
        if (sigaction(SIGXFSZ, nullptr, &current) == 0 && current.sa_handler == SIG_DFL) {
            signal(SIGXFSZ, SIG_IGN);
        }
        fileGroup();
    });
}

// ---- Opening ----

bool CBBLog::openFile(int& fd, const CStdStr& path, bool truncate) {
    return openLogFile(*io, fd, path, truncate);
}

bool CBBLog::openLogFile(LogFileIo& io, int& fd, const CStdStr& path, bool truncate) {
    // Never through a symbolic link, never waiting for a FIFO's reader, never taking a
    // terminal, and nothing but a regular file is even opened (the look before the open
    // spares devices the open; the check after it closes the race). O_EXCL first tells
    // whether this logger created the file: only then are its mode and group set, so
    // that a file planted by someone else is never changed.
    const int flags = O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    bool created = true;
    fd = io.open(path.c_str(), flags | O_CREAT | O_EXCL, kFileMode);
    if (fd == -1 && errno == EEXIST) {
        created = false;
        const int refusal = refusalOf(path.c_str());
        if (refusal != 0) {
            errno = refusal;
            return false;
        }
        fd = io.open(path.c_str(), flags | (truncate ? O_TRUNC : 0), 0);
    }
    if (fd == -1) return false;
    struct stat info {};
    const int error = io.fstat(fd, &info) != 0 ? errno : S_ISREG(info.st_mode) ? 0 : EINVAL;
    if (error != 0) {
        close(fd);
        fd = -1;
        errno = error;
        return false;
    }
    if (created) {
        // The mode is set again because the process's umask narrowed it.
        if (fchmod(fd, kFileMode) != 0) {
            // Left as the umask made it; the file is still the logger's own.
        }
        if (fileGroup() != static_cast<gid_t>(-1) &&
            fchown(fd, static_cast<uid_t>(-1), fileGroup())) {
            // Not a member of the group: the file keeps the process's group.
        }
    }
    return true;
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

// Uses system calls only and builds the backup name on the stack, so the synchronous
// error-log path stays free of allocations.
long long CBBLog::rotateAndGetSize(int& fd, const CStdStr& path, FileState& state) {
    struct stat opened {};
    if (fd == -1 || io->fstat(fd, &opened) != 0) return -1;  // the write fails on its own
    struct stat named {};
    bool reopen = false;
    if (io->stat(path.c_str(), &named) != 0) {
        if (errno != ENOENT) return opened.st_size;
        reopen = true;  // deleted or moved away: start a new file at the path
    } else if (named.st_ino != opened.st_ino || named.st_dev != opened.st_dev) {
        reopen = true;  // another process rotated it: follow to the new file
    } else if (opened.st_size < maxSize || io->nowMs() < state.rotateRetryAt) {
        return opened.st_size;  // below the limit, or backing off after a failed rotation
    }
    if (!reopen) {
        // Size reached. The exclusive lock serialises rotation between processes; the
        // second stat under it sees whether another process rotated first, in which
        // case the path already names a fresh file and is left alone.
        int error = 0;
        char backup[PATH_MAX];
        const size_t suffixLength = strlen(kBackupSuffix);
        if (io->flock(fd, LOCK_EX) != 0) {
            error = errno;
        } else if (io->stat(path.c_str(), &named) == 0 && named.st_ino == opened.st_ino &&
                   named.st_dev == opened.st_dev) {
            if (path.size() + suffixLength >= sizeof(backup)) {
                error = ENAMETOOLONG;
            } else {
                memcpy(backup, path.data(), path.size());
                memcpy(backup + path.size(), kBackupSuffix, suffixLength + 1);
                // Replaces the previous backup; a symbolic link or FIFO planted there is
                // replaced too, never opened.
                if (io->rename(path.c_str(), backup) != 0) error = errno;
            }
        }
        if (error != 0) {
            // Keep appending to the open file; try again later, not before every line.
            io->flock(fd, LOCK_UN);
            state.rotateRetryAt = io->nowMs() + kRotateRetryMs;
            state.rotateError = error;
            return opened.st_size;
        }
    }
    close(fd);  // also drops the lock
    fd = -1;
    if (!openFile(fd, path, false)) return -1;
    return io->fstat(fd, &opened) == 0 ? opened.st_size : -1;
}

size_t CBBLog::formatRotationReport(char* out, size_t size, const CStdStr& path, int error) const {
    char reason[256];
    const char* text = strerror_r(error, reason, sizeof(reason));
    const size_t header = formatHeader(out, size, ERROR);
    const int length = snprintf(out + header, size - header,
                                "%s - cannot rotate '%s' to '%s%s': %s; appending to it, next "
                                "attempt in %lld s\n",
                                shortName.c_str(), path.c_str(), path.c_str(), kBackupSuffix, text,
                                kRotateRetryMs / 1000);
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
    // A short write (a full disk) is continued until the kernel refuses with an error.
    size_t whole = 0;  // lines written completely
    size_t torn = 0;   // bytes of the next line already written
    for (;;) {
        while (count > 0 && part->iov_len == 0) {  // nothing to write for an empty text
            ++whole;
            ++part;
            --count;
        }
        if (count == 0) break;
        const ssize_t n = io->writev(fd, part, count);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            error = n < 0 ? errno : EIO;
            break;
        }
        size_t left = static_cast<size_t>(n);
        while (count > 0 && left >= part->iov_len) {
            left -= part->iov_len;
            torn = 0;
            ++whole;
            ++part;
            --count;
        }
        if (left > 0) {
            part->iov_base = static_cast<char*>(part->iov_base) + left;
            part->iov_len -= left;
            torn += left;
        }
    }
    if (torn > 0) {
        // The file position is just past this logger's last byte (appending), so the
        // torn line is cut off without touching what came before it.
        const off_t end = lseek(fd, 0, SEEK_CUR);
        if (end < static_cast<off_t>(torn) ||
            io->ftruncate(fd, end - static_cast<off_t>(torn)) != 0) {
            reportFailure("Log file failure: " + failureMessage("cut a torn line off", errno));
        }
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
    if (strcmp(action, "open") == 0 && isNotARegularFile(error)) {
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
    const int fd = logFd.load();
    struct stat info {};
    if (fd == -1 || fstat(fd, &info) != 0) return -1;
    return info.st_size;
}
