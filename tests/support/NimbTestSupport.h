// SPDX-License-Identifier: MIT
// Fixtures shared by the module tests: a temporary folder removed with everything in
// it, an environment variable set for one scope, small file helpers, bounded waits,
// child processes with a bounded wait, and a test fixture that gives each test its
// own folder and settings home. Used on the test's main thread.
#pragma once

#include <chrono>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

#include <gtest/gtest.h>

namespace nimbtest {

namespace fs = std::filesystem;

// The key under which the suite keeps its settings.
inline const char* const kSuiteKey = "Software\\Pellix\\Nimb";

// A fresh folder under the system's temporary folder; removed on destruction.
class TempDir {
public:
    TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    ~TempDir();
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// Sets (or, with nullopt, unsets) one environment variable until the end of scope.
class ScopedEnv {
public:
    ScopedEnv(const char* name, std::optional<std::string> value);
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;
    ~ScopedEnv();

private:
    std::string name_;
    std::optional<std::string> saved_;
};

// Sets TZ (and re-reads it) until the end of scope.
class ScopedTimeZone {
public:
    explicit ScopedTimeZone(const char* tz);
    ScopedTimeZone(const ScopedTimeZone&) = delete;
    ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;
    ~ScopedTimeZone();

private:
    std::optional<ScopedEnv> tz_;
};

// A broken-down time with the given fields (month 1-12), daylight saving left to mktime.
tm dateTime(int year, int month, int day, int hour, int minute, int second);

std::string readFile(const fs::path& path);
void writeFile(const fs::path& path, const std::string& bytes);
// The lines of `text`, without their newlines; a last line without one is kept.
std::vector<std::string> linesOf(const std::string& text);
// Polls `done` every `interval` until it returns true or `limit` has passed on the
// clock (however long each call takes), then asks once more.
bool waitUntil(const std::function<bool()>& done,
               std::chrono::milliseconds limit = std::chrono::seconds(5),
               std::chrono::milliseconds interval = std::chrono::milliseconds(1));

struct ChildResult {
    int pid = -1;
    bool finished = false;  // false: it overran and was killed
    int status = 0;         // as waitpid gives it
    std::string output;     // standard output (and error, when collected with it)
    std::string errors;     // standard error, when collected apart (runProgram)
    // The exit code of a child that exited normally, else -1.
    int exitCode() const;
};

// Starts `argv` with `environment` added to this process's environment, its standard
// output (and its errors, when `withErrors`; else they are dropped) going to
// `outputFile`. Returns the pid.
pid_t spawnChild(const std::vector<std::string>& argv,
                 const std::map<std::string, std::string>& environment, const fs::path& outputFile,
                 bool withErrors = true);
// Waits at most `timeout` for `pid` to end, then kills it.
ChildResult waitChild(pid_t pid, const fs::path& outputFile,
                      std::chrono::seconds timeout = std::chrono::seconds(60));
// spawnChild() then waitChild().
ChildResult runChild(const std::vector<std::string>& argv,
                     const std::map<std::string, std::string>& environment,
                     const fs::path& outputFile, bool withErrors = true,
                     std::chrono::seconds timeout = std::chrono::seconds(60));

// Runs `argv` (environment inherited) as runChild() does, its standard output and
// error collected apart through files in `scratch`.
ChildResult runProgram(const std::vector<std::string>& argv, const TempDir& scratch);

// Each test gets a temporary folder and its own settings home ("config") inside it.
class ConfigHomeTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override { configHome_.reset(); }

    // Writes a setting under the suite's key.
    static void setSuiteSetting(const char* name, const std::string& value);
    static void setSuiteSetting(const char* name, int value);

    TempDir dir_;
    std::optional<ScopedEnv> configHome_;
};

}  // namespace nimbtest
