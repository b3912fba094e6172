// SPDX-License-Identifier: MIT
// Test support for the file tools and the tools built on them: a temporary folder
// removed with everything in it, an environment variable set for one scope, a
// fixture that gives each test its own folder and settings home, and a runner for
// child programs that collects their output within a time limit.
#pragma once

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "CRegistry.h"
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

// A fresh folder under /tmp, removed with its contents on destruction.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/nimb-filetools-XXXXXX";
        const char* made = ::mkdtemp(name);
        path_ = made ? made : "";
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir() {
        boost::system::error_code ec;
        if (!path_.empty()) boost::filesystem::remove_all(path_, ec);
    }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Sets (or, with nullopt, unsets) one environment variable until the end of scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
        if (const char* old = std::getenv(name)) saved_ = std::string(old);
        if (value) {
            ::setenv(name, value->c_str(), 1);
        } else {
            ::unsetenv(name);
        }
    }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;
    ~ScopedEnv() {
        if (saved_) {
            ::setenv(name_.c_str(), saved_->c_str(), 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }

private:
    std::string name_;
    std::optional<std::string> saved_;
};

inline void writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// Each test gets a temporary folder and its own settings home inside it.
class FileToolsTest : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_FALSE(dir_.path().empty());
        ASSERT_EQ(::mkdir((dir_ / "config").c_str(), 0700), 0);
        configHome_.emplace("XDG_CONFIG_HOME", dir_ / "config");
    }
    void TearDown() override { configHome_.reset(); }

    // Writes a string setting under the suite's key.
    static void setSuiteSetting(const char* name, const std::string& value) {
        ASSERT_TRUE(
            CRegistry::getInstance()->WriteSettingImpl("Software\\Pellix\\Nimb", name, value));
    }

    TempDir dir_;
    std::optional<ScopedEnv> configHome_;
};

struct ProcessResult {
    int exitCode = -1;  // -1 when the child did not exit normally
    std::string out;
    std::string err;
};

// Runs `argv` with the current environment plus `extraEnv` ("NAME=value"), collects
// standard output and error, and kills the child if it runs longer than 30 s.
inline ProcessResult runProcess(const std::vector<std::string>& argv,
                                const std::vector<std::string>& extraEnv = {}) {
    ProcessResult result;
    int outPipe[2];
    int errPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0) return result;
    if (::pipe2(errPipe, O_CLOEXEC) != 0) {
        ::close(outPipe[0]);
        ::close(outPipe[1]);
        return result;
    }
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(outPipe[1], 1);
        ::dup2(errPipe[1], 2);
        for (const std::string& setting : extraEnv) ::putenv(const_cast<char*>(setting.c_str()));
        ::execv(args[0], args.data());
        ::_exit(127);
    }
    ::close(outPipe[1]);
    ::close(errPipe[1]);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    pollfd fds[2] = {{outPipe[0], POLLIN, 0}, {errPipe[0], POLLIN, 0}};
    std::string* sinks[2] = {&result.out, &result.err};
    int open = 2;
    while (open > 0 && std::chrono::steady_clock::now() < deadline) {
        if (::poll(fds, 2, 1000) <= 0) continue;
        for (int i = 0; i < 2; ++i) {
            if (fds[i].fd < 0 || fds[i].revents == 0) continue;
            char buffer[4096];
            const ssize_t n = ::read(fds[i].fd, buffer, sizeof buffer);
            if (n > 0) {
                sinks[i]->append(buffer, static_cast<size_t>(n));
            } else {
                ::close(fds[i].fd);
                fds[i].fd = -1;
                --open;
            }
        }
    }
    for (const pollfd& fd : fds) {
        if (fd.fd >= 0) ::close(fd.fd);
    }
    if (open > 0 && pid > 0) ::kill(pid, SIGKILL);
    int status = 0;
    if (pid > 0 && ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    }
    return result;
}
