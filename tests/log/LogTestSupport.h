// SPDX-License-Identifier: MIT
// Test support for the logger: a fixture that gives each test its own temporary
// settings home (XDG_CONFIG_HOME) with "LogsDir" pointing into its own temporary
// folder, captures standard output (where the logger echoes every line), and offers
// small file helpers, and the outcome of a text queued with a completion. Used on the
// test's main thread only.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "NimbTestSupport.h"

namespace logtest {

using nimbtest::linesOf;
using nimbtest::readFile;
using nimbtest::waitUntil;
using nimbtest::writeFile;

// The outcome of one text queued with a completion; read it once `calls` is not 0.
struct Outcome {
    std::atomic<int> calls{0};
    int error = -1;
    std::string message;
    bool onCaller = false;  // called on the thread that queued the text
};

// Queues `text` on `log` with a completion that fills in `outcome`.
inline void addRaw(CBBLog& log, const std::string& text, Outcome& outcome) {
    const std::thread::id caller = std::this_thread::get_id();
    log.AddRawLog(text, [&outcome, caller](int error, const CStdStr& message) {
        outcome.error = error;
        outcome.message = message;
        outcome.onCaller = std::this_thread::get_id() == caller;
        outcome.calls.fetch_add(1, std::memory_order_release);
    });
}

// addRaw(), then waits (at most five seconds) for the outcome.
inline Outcome& addAndWait(CBBLog& log, const std::string& text, Outcome& outcome) {
    addRaw(log, text, outcome);
    EXPECT_TRUE(waitUntil([&] { return outcome.calls.load(std::memory_order_acquire) > 0; }))
        << text;
    return outcome;
}

class LogTest : public nimbtest::ConfigHomeTest {
protected:
    void SetUp() override {
        ConfigHomeTest::SetUp();
        writeLogsDirSetting(logsDir());
        startCapture();
    }

    void TearDown() override {
        CBBLog::setLogger(boost::shared_ptr<CBBLog>());
        const std::string output = stopCapture();
        if (HasFailure()) {
            // Assertion messages went into the capture too: show its end.
            const size_t from = output.size() > 8000 ? output.size() - 8000 : 0;
            fprintf(stdout, "---- captured standard output (end) ----\n%s\n",
                    output.substr(from).c_str());
        }
        ConfigHomeTest::TearDown();
    }

    const std::string& root() const { return dir_.path(); }
    std::string logsDir() const { return dir_ / "logs"; }
    std::string logFile(const std::string& name) const { return logsDir() + "/" + name; }

    static void writeLevelSetting(int value) { setSuiteSetting("LogLevel", value); }
    static void writeLogsDirSetting(const std::string& dir) { setSuiteSetting("LogsDir", dir); }

    // What was written to standard output since the test began.
    std::string capturedStdout() const {
        fflush(stdout);
        return readFile(captureFile());
    }

private:
    std::string captureFile() const { return dir_ / "stdout.txt"; }

    void startCapture() {
        fflush(stdout);
        savedStdout_ = dup(STDOUT_FILENO);
        const int fd = open(captureFile().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        ASSERT_NE(fd, -1);
        dup2(fd, STDOUT_FILENO);
        close(fd);
    }

    std::string stopCapture() {
        const std::string output = capturedStdout();
        if (savedStdout_ != -1) {
            dup2(savedStdout_, STDOUT_FILENO);
            close(savedStdout_);
            savedStdout_ = -1;
        }
        return output;
    }

    int savedStdout_ = -1;
};

}  // namespace logtest
