// SPDX-License-Identifier: MIT
#include "MainLogFile.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace {

const char* const kReportPrefix = "nimb-log";
// The most lines one batched write hands to the kernel (the writev limit).
constexpr size_t kMaxLinesPerWrite = IOV_MAX;

}  // namespace

MainLogFile::MainLogFile(const LogLineFormat& format, ErrorLogFile& errorLog, long long maxSize,
                         Report report)
    : format_(format), errorLog_(errorLog), maxSize_(maxSize), report_(std::move(report)) {}

int MainLogFile::open() {
    int fd = fd_.load();
    if (fd != -1) return fd;
    const long long now = io_->nowMs();
    if (state_.openError != 0 && now < state_.openRetryAt) return -1;
    errorLog_.makeLogsFolder();
    if (path_.empty() || !RotatingLogFile::open(*io_, fd, path_, false)) {
        const int error = path_.empty() ? ENOENT : errno;
        if (state_.openError == 0) {
            printf("Error: could not open log file '%s': %d\n", path_.c_str(), error);
            fflush(stdout);
        }
        state_.openError = error;
        state_.openRetryAt = now + kOpenRetryMs;
        return -1;
    }
    state_.openError = 0;
    fd_.store(fd);
    return fd;
}

void MainLogFile::close() {
    const int fd = fd_.exchange(-1);
    if (fd != -1) ::close(fd);
}

long long MainLogFile::size() const {
    struct stat info {};
    const int fd = fd_.load();
    if (fd == -1 || fstat(fd, &info) != 0) return -1;
    return info.st_size;
}

int MainLogFile::prepare(long long& size) {
    int fd = fd_.load();
    size = RotatingLogFile::rotateAndGetSize(*io_, fd, path_, maxSize_, state_);
    fd_.store(fd);
    if (state_.rotateError != 0) {
        const long long now = io_->nowMs();
        if (now >= state_.rotateReportAt) {
            char report[1024];
            const size_t length =
                format_.rotationReport(report, sizeof(report), path_, state_.rotateError);
            if (!errorLog_.append(report, length)) {
                fprintf(stderr, "%s: %.*s", kReportPrefix, static_cast<int>(length), report);
            }
            state_.rotateReportAt = now + kReportIntervalMs;
        }
        state_.rotateError = 0;
    }
    if (fd == -1) {
        fd = open();
        struct stat info {};
        size = fd != -1 && io_->fstat(fd, &info) == 0 ? info.st_size : -1;
    }
    return fd;
}

void MainLogFile::writeLine(const CStdStr& line) {
    long long size = -1;
    const int fd = prepare(size);
    if (fd == -1) {
        noteOutcome(state_.openError, failureMessage("open", state_.openError), 1);
        return;
    }
    iovec part{const_cast<char*>(line.data()), line.size()};
    int error = 0;
    writeParts(fd, &part, 1, error);
    noteOutcome(error, error != 0 ? failureMessage("write", error) : CStdStr(), 1);
}

// Writes the same bytes in the same order as one writeLine per line, with fewer system
// calls: after each rotation check, the lines that follow are gathered into one writev
// as long as the size the file would have before each of them stays below the limit,
// that is, as long as writeLine would not rotate before that line. The run ends at the
// line that crosses the limit, so the next run starts with a rotation. While a failed
// rotation is backing off there is no limit to a run. What is checked once per run
// instead of per line is whether another process deleted or rotated the file
// meanwhile; lines written in that window land in the old file, just as a line written
// between the check and the write does in the per-line case.
void MainLogFile::writeRun(std::deque<CStdStr>& lines, std::vector<Completion>& done) {
    iovec parts[kMaxLinesPerWrite];
    size_t next = 0;
    size_t nextDone = 0;
    while (next < lines.size()) {
        long long size = -1;
        const int fd = prepare(size);
        const bool limited = state_.rotateRetryAt == 0 || io_->nowMs() >= state_.rotateRetryAt;
        const size_t first = next;
        long long pending = 0;
        int count = 0;
        do {
            CStdStr& line = lines[next++];
            parts[count++] = {line.data(), line.size()};
            pending += static_cast<long long>(line.size());
        } while (next < lines.size() && next - first < kMaxLinesPerWrite &&
                 (fd == -1 || (size >= 0 && (!limited || size + pending < maxSize_))));
        if (fd == -1) {
            const int error = state_.openError;
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

size_t MainLogFile::writeParts(int fd, iovec* part, int count, int& error) {
    int cutError = 0;
    const size_t whole = RotatingLogFile::writeParts(*io_, fd, part, count, error, cutError);
    if (cutError != 0) {
        report_("Log file failure: " + failureMessage("cut a torn line off", cutError));
    }
    return whole;
}

void MainLogFile::complete(std::vector<Completion>& done, size_t& next, size_t end,
                           size_t failedFrom, int error, const char* action) const {
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

CStdStr MainLogFile::failureMessage(const char* action, int error) const {
    char reason[256];
    // The GNU strerror_r returns the text, which need not be in `reason`.
    const char* text = strerror_r(error, reason, sizeof(reason));
    if (strcmp(action, "open") == 0 && RotatingLogFile::isNotARegularFile(error)) {
        return "cannot open '" + path_ + "': not a regular file (" + text + ")";
    }
    return CStdStr("cannot ") + action + " '" + path_ + "': " + text;
}

void MainLogFile::noteOutcome(int error, const CStdStr& message, size_t texts) {
    if (error == 0) {
        writable_.store(true);
        if (failing_) {
            report_("Log file recovered: '" + path_ +
                    "' is written again (texts not written before: " +
                    std::to_string(unreportedFailures_) + ")");
        }
        failing_ = false;
        unreportedFailures_ = 0;
        failureReportAt_ = 0;
        return;
    }
    writable_.store(false);
    failing_ = true;
    unreportedFailures_ += texts;
    const long long now = io_->nowMs();
    if (now < failureReportAt_) return;
    report_("Log file failure: " + message +
            " (texts not written: " + std::to_string(unreportedFailures_) + ")");
    unreportedFailures_ = 0;
    failureReportAt_ = now + kReportIntervalMs;
}
