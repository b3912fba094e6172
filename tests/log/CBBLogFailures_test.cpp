// SPDX-License-Identifier: MIT
// File failures made by a LogFileIo that fails chosen calls: what the texts' completions
// say, what stays in the file, how often a failing open or rotation is tried again and
// where failures are reported. The clock is the fake's, so back-off is tested exactly.
#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <vector>

#include <fcntl.h>
#include <unistd.h>

#include <boost/make_shared.hpp>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "LogFileIo.h"
#include "LogTestSupport.h"

namespace {

using logtest::LogTest;
using logtest::Outcome;
using logtest::readFile;
using logtest::waitUntil;

// Passes every call to the kernel unless told to fail it.
class FaultyIo : public LogFileIo {
public:
    // open() of a path ending in `suffix` fails with `error` (0: never).
    void failOpen(const std::string& suffix, int error) {
        std::lock_guard<std::mutex> lock(mutex_);
        openSuffix_ = suffix;
        openError_ = error;
    }
    // After `room` more bytes, writev() fails with `error` (0: never).
    void failWrites(int error, long long room = 0) {
        writeRoom_ = room;
        writeError_ = error;
    }
    std::atomic<int> renameError{0};
    std::atomic<int> renames{0};
    std::atomic<int> opens{0};
    std::atomic<long long> clockMs{1000000};

    int open(const char* path, int flags, mode_t mode) override {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            const std::string name(path);
            if (openError_ != 0 && name.size() >= openSuffix_.size() &&
                name.compare(name.size() - openSuffix_.size(), openSuffix_.size(), openSuffix_) ==
                    0) {
                ++opens;
                errno = openError_;
                return -1;
            }
        }
        ++opens;
        return LogFileIo::open(path, flags, mode);
    }
    ssize_t writev(int fd, const iovec* parts, int count) override {
        if (writeError_ == 0) return LogFileIo::writev(fd, parts, count);
        // Writes what fits into the room left, as a file system that fills up does.
        std::vector<iovec> fitting;
        long long room = writeRoom_;
        for (int i = 0; i < count && room > 0; ++i) {
            const size_t size = std::min<size_t>(parts[i].iov_len, static_cast<size_t>(room));
            fitting.push_back({parts[i].iov_base, size});
            room -= static_cast<long long>(size);
        }
        if (fitting.empty()) {
            errno = writeError_;
            return -1;
        }
        const ssize_t n = LogFileIo::writev(fd, fitting.data(), static_cast<int>(fitting.size()));
        if (n > 0) writeRoom_ -= n;
        return n;
    }
    int rename(const char* from, const char* to) override {
        ++renames;
        if (renameError != 0) {
            errno = renameError;
            return -1;
        }
        return LogFileIo::rename(from, to);
    }
    long long nowMs() override { return clockMs; }

private:
    std::mutex mutex_;
    std::string openSuffix_;
    int openError_ = 0;
    std::atomic<int> writeError_{0};
    std::atomic<long long> writeRoom_{0};
};

class LogFailureTest : public LogTest {
protected:
    // A logger of `name` that makes its system calls through io_.
    std::unique_ptr<CBBLog> makeLog(const std::string& name, long long limit = 1 << 20) {
        auto log = std::make_unique<CBBLog>(name, false, limit);
        log->setFileIoForTesting(io_);
        return log;
    }
    // Queues `text` and waits for its outcome.
    Outcome& add(CBBLog& log, const std::string& text) {
        return logtest::addAndWait(log, text, outcomes_.emplace_back());
    }
    // The process's own log, which receives the failure reports.
    boost::shared_ptr<CBBLog> installOwnLog() {
        auto own = boost::make_shared<CBBLog>("own.log", false, 1 << 20);
        own->setLogLevel(ERROR);
        CBBLog::setLogger(own);
        return own;
    }

    std::shared_ptr<FaultyIo> io_ = std::make_shared<FaultyIo>();
    std::deque<Outcome> outcomes_;
};

// Redirects standard error into a file until the end of scope.
class StderrCapture {
public:
    explicit StderrCapture(std::string path) : path_(std::move(path)) {
        fflush(stderr);
        saved_ = dup(STDERR_FILENO);
        const int fd = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    ~StderrCapture() {
        fflush(stderr);
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    std::string text() const { return readFile(path_); }

private:
    std::string path_;
    int saved_ = -1;
};

TEST_F(LogFailureTest, AFailedWriteFailsItsTextsWholeNamingFileAndReason) {
    const struct {
        int error;
        const char* reason;
    } cases[] = {{ENOSPC, "No space left on device"},
                 {EDQUOT, "Disk quota exceeded"},
                 {EIO, "Input/output error"},
                 {EFBIG, "File too large"}};
    const std::string text(99, 't');
    for (const auto& c : cases) {
        SCOPED_TRACE(c.reason);
        const std::string name = "w" + std::to_string(c.error) + ".log";
        auto log = makeLog(name);
        EXPECT_EQ(add(*log, "before\n").error, 0);
        // Room for one text and a half: the second is cut off again, the third never starts.
        io_->failWrites(c.error, 150);
        std::vector<Outcome*> failing;
        EXPECT_EQ(add(*log, text + "1").error, 0);
        for (int i = 2; i <= 3; ++i) {
            Outcome& outcome = add(*log, text + std::to_string(i));
            EXPECT_EQ(outcome.error, c.error);
            EXPECT_EQ(outcome.message, "cannot write '" + logFile(name) + "': " + c.reason);
        }
        io_->failWrites(0);
        EXPECT_EQ(add(*log, "after\n").error, 0);
        EXPECT_EQ(readFile(logFile(name)), "before\n" + text + "1" + "after\n");
    }
}

TEST_F(LogFailureTest, FailuresAreReportedAtABoundedRateInTheOwnLogElseOnStandardError) {
    auto own = installOwnLog();
    auto log = makeLog("full.log");
    const std::string path = logFile("full.log");
    io_->failWrites(ENOSPC);
    for (int i = 0; i < 3; ++i) add(*log, "lost\n");
    io_->clockMs += CBBLog::kReportIntervalMs;
    add(*log, "lost\n");
    io_->failWrites(0);
    add(*log, "kept\n");
    const std::string failure = "Log file failure: cannot write '" + path +
                                "': No space left on device (texts not written: ";
    ASSERT_TRUE(waitUntil([&] {
        return readFile(logFile("own.log")).find("is written again") != std::string::npos;
    }));
    const std::vector<std::string> lines = logtest::linesOf(readFile(logFile("own.log")));
    ASSERT_EQ(lines.size(), 3u);
    // The first failure at once, the rest when the interval has passed, then the return.
    EXPECT_NE(lines[0].find("[ERROR] - " + failure + "1)"), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(failure + "3)"), std::string::npos) << lines[1];
    EXPECT_NE(lines[2].find("Log file recovered: '" + path +
                            "' is written again (texts not written before: 0)"),
              std::string::npos)
        << lines[2];

    // The own log failing too: both failures go to standard error.
    StderrCapture errors(root() + "/stderr.txt");
    auto failingOwn = makeLog("failing.log");
    failingOwn->setLogLevel(ERROR);
    boost::shared_ptr<CBBLog> failingDefault(failingOwn.release());
    CBBLog::setLogger(failingDefault);
    io_->failWrites(ENOSPC);
    failingDefault->AddLog(ERROR, "own line");
    ASSERT_TRUE(waitUntil([&] { return errors.text().find("failing.log") != std::string::npos; }));
    add(*log, "lost again\n");
    io_->failWrites(0);
    EXPECT_NE(errors.text().find("nimb-log: failing: Log file failure: cannot write '" +
                                 logFile("failing.log") + "': No space left on device"),
              std::string::npos)
        << errors.text();
    EXPECT_NE(errors.text().find("nimb-log: full: " + failure + "1)"), std::string::npos)
        << errors.text();
}

TEST_F(LogFailureTest, AFailedOpenIsRetriedAtABoundedRateAndRecoversByItself) {
    io_->failOpen("ro.log", EROFS);
    auto log = makeLog("ro.log");
    const std::string message = "cannot open '" + logFile("ro.log") + "': Read-only file system";
    Outcome& first = add(*log, "one\n");
    EXPECT_EQ(first.error, EROFS);
    EXPECT_EQ(first.message, message);
    const int opens = io_->opens;
    // Within the retry interval the open is not tried again; the texts fail at once.
    EXPECT_EQ(add(*log, "two\n").message, message);
    EXPECT_EQ(io_->opens, opens);
    io_->clockMs += CBBLog::kOpenRetryMs;
    EXPECT_EQ(add(*log, "three\n").error, EROFS);
    EXPECT_GT(io_->opens, opens);
    // Reported once on standard output, when the failure began.
    const std::string reported =
        "Error: could not open log file '" + logFile("ro.log") + "': " + std::to_string(EROFS);
    EXPECT_EQ(capturedStdout().find(reported), capturedStdout().rfind(reported));

    io_->failOpen("", 0);
    EXPECT_EQ(add(*log, "four\n").error, EROFS);  // not yet due
    io_->clockMs += CBBLog::kOpenRetryMs;
    EXPECT_EQ(add(*log, "five\n").error, 0);
    EXPECT_EQ(readFile(logFile("ro.log")), "five\n");
}

TEST_F(LogFailureTest, ARotationThatKeepsFailingBacksOffReportsAndKeepsAppending) {
    const std::string path = logFile("stuck.log");
    const std::string line(59, 'l');
    io_->renameError = EXDEV;
    auto log = makeLog("stuck.log", 100);
    std::string expected;
    auto addLine = [&](char tag) {
        expected += tag + line.substr(1) + "\n";
        EXPECT_EQ(add(*log, tag + line.substr(1) + "\n").error, 0);
    };
    for (char tag : {'a', 'b', 'c', 'd', 'e'}) addLine(tag);
    // One attempt for the third line; the later lines wait for the back-off.
    EXPECT_EQ(io_->renames, 1);
    EXPECT_EQ(readFile(path), expected);
    const std::string report = "[ERROR] - stuck - cannot rotate '" + path + "' to '" + path +
                               ".back': Invalid cross-device link; appending to it, next " +
                               "attempt in 5 s";
    auto reports = [&] {
        const std::string errors = readFile(logFile("errors.log"));
        size_t count = 0;
        for (size_t at = errors.find(report); at != std::string::npos;
             at = errors.find(report, at + 1)) {
            ++count;
        }
        return count;
    };
    EXPECT_EQ(reports(), 1u);

    io_->clockMs += CBBLog::kRotateRetryMs;
    addLine('f');
    EXPECT_EQ(io_->renames, 2);
    EXPECT_EQ(reports(), 1u);  // within the report interval
    io_->clockMs += CBBLog::kReportIntervalMs;
    addLine('g');
    EXPECT_EQ(reports(), 2u);
    EXPECT_EQ(readFile(path), expected);

    io_->renameError = 0;
    io_->clockMs += CBBLog::kRotateRetryMs;
    add(*log, "fresh\n");
    EXPECT_EQ(readFile(path), "fresh\n");
    EXPECT_EQ(readFile(path + ".back"), expected);
}

}  // namespace
