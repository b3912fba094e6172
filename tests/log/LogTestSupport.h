// SPDX-License-Identifier: MIT
// Test support for the logger: a fixture that gives each test its own temporary
// settings home (XDG_CONFIG_HOME) with "LogsDir" pointing into its own temporary
// folder, captures standard output (where the logger echoes every line), and offers
// small file helpers. Used on the test's main thread only.
#pragma once

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CBBLog.h"
#include "CRegistry.h"
#include <fcntl.h>
#include <unistd.h>

namespace logtest {

inline const char* const kSuiteKey = "Software\\Pellix\\Nimb";

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

inline void writeFile(const std::string& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

// The lines of `text`, without their newlines; a last line without one is kept.
inline std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Polls `done` every millisecond for at most five seconds.
inline bool waitUntil(const std::function<bool()>& done) {
    for (int i = 0; i < 5000; ++i) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return done();
}

class LogTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (std::filesystem::temp_directory_path() / "log_test.XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        root_ = pattern;
        std::filesystem::create_directory(root_ + "/config");
        if (const char* old = std::getenv("XDG_CONFIG_HOME")) savedConfigHome_ = old;
        setenv("XDG_CONFIG_HOME", (root_ + "/config").c_str(), 1);
        ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kSuiteKey, "LogsDir", logsDir()));
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
        if (savedConfigHome_) {
            setenv("XDG_CONFIG_HOME", savedConfigHome_->c_str(), 1);
        } else {
            unsetenv("XDG_CONFIG_HOME");
        }
        std::error_code ignored;
        std::filesystem::remove_all(root_, ignored);
    }

    const std::string& root() const { return root_; }
    std::string logsDir() const { return root_ + "/logs"; }
    std::string logFile(const std::string& name) const { return logsDir() + "/" + name; }

    void writeLevelSetting(int value) {
        ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kSuiteKey, "LogLevel", value));
    }
    void writeLogsDirSetting(const std::string& dir) {
        ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kSuiteKey, "LogsDir", dir));
    }

    // What was written to standard output since the test began.
    std::string capturedStdout() const {
        fflush(stdout);
        return readFile(captureFile());
    }

private:
    std::string captureFile() const { return root_ + "/stdout.txt"; }

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

    std::string root_;
    std::optional<std::string> savedConfigHome_;
    int savedStdout_ = -1;
};

}  // namespace logtest
