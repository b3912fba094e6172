// SPDX-License-Identifier: MIT
// Test support for the file tools and the tools built on them: a temporary folder
// removed with everything in it, an environment variable set for one scope, a
// fixture that gives each test its own folder and settings home, and a runner for
// child programs that collects their output.
#pragma once

#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <vector>

#include <boost/filesystem.hpp>
#include <gtest/gtest.h>

#include "CRegistry.h"
#include <fcntl.h>
#include <spawn.h>
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

// Runs `argv` (environment inherited), its standard output and error going to files
// in `scratch`; waits for it (ctest's per-test timeout bounds a hung child).
inline ProcessResult runProcess(const std::vector<std::string>& argv, const TempDir& scratch) {
    const std::string outPath = scratch / "child.out";
    const std::string errPath = scratch / "child.err";
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                       0600);
    ::posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                       0600);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ProcessResult result;
    pid_t pid = 0;
    int status = 0;
    if (::posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) == 0 &&
        ::waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
        result.exitCode = WEXITSTATUS(status);
    }
    ::posix_spawn_file_actions_destroy(&actions);
    std::ifstream out(outPath), err(errPath);
    result.out.assign(std::istreambuf_iterator<char>(out), {});
    result.err.assign(std::istreambuf_iterator<char>(err), {});
    return result;
}
