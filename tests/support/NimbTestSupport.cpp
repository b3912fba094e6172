// SPDX-License-Identifier: MIT
#include "NimbTestSupport.h"

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "CRegistry.h"

namespace nimbtest {

TempDir::TempDir() {
    std::string pattern = (fs::temp_directory_path() / "nimb-test-XXXXXX").string();
    if (::mkdtemp(pattern.data()) != nullptr) path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    if (!path_.empty()) fs::remove_all(path_, ec);
}

ScopedEnv::ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) saved_ = std::string(old);
    if (value) {
        ::setenv(name, value->c_str(), 1);
    } else {
        ::unsetenv(name);
    }
}

ScopedEnv::~ScopedEnv() {
    if (saved_) {
        ::setenv(name_.c_str(), saved_->c_str(), 1);
    } else {
        ::unsetenv(name_.c_str());
    }
}

ScopedTimeZone::ScopedTimeZone(const char* tz) {
    tz_.emplace("TZ", std::string(tz));
    tzset();
}

ScopedTimeZone::~ScopedTimeZone() {
    tz_.reset();  // the previous TZ is back; make the C library read it again
    tzset();
}

tm dateTime(int year, int month, int day, int hour, int minute, int second) {
    tm fields{};
    fields.tm_year = year - 1900;
    fields.tm_mon = month - 1;
    fields.tm_mday = day;
    fields.tm_hour = hour;
    fields.tm_min = minute;
    fields.tm_sec = second;
    fields.tm_isdst = -1;
    return fields;
}

std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream content;
    content << in.rdbuf();
    return content.str();
}

void writeFile(const fs::path& path, const std::string& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << bytes;
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit,
               std::chrono::milliseconds interval) {
    const auto until = std::chrono::steady_clock::now() + limit;
    // Bounded by the count too, should the clock misbehave.
    for (auto i = limit / std::max(interval, std::chrono::milliseconds(1)); i >= 0; --i) {
        if (done()) return true;
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(interval);
    }
    return done();
}

int ChildResult::exitCode() const {
    return finished && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

namespace {

// Starts `argv` with its standard output going to `outputFile` and its errors to
// `errorFile` (the same file when the paths are equal).
pid_t spawnTo(const std::vector<std::string>& argv,
              const std::map<std::string, std::string>& environment, const fs::path& outputFile,
              const fs::path& errorFile) {
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
    const int fd = ::open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) ::dup2(fd, STDOUT_FILENO);
    const int errors = errorFile == outputFile
                           ? fd
                           : ::open(errorFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (errors >= 0) ::dup2(errors, STDERR_FILENO);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    ::execv(args[0], args.data());
    ::_exit(127);
}

}  // namespace

pid_t spawnChild(const std::vector<std::string>& argv,
                 const std::map<std::string, std::string>& environment, const fs::path& outputFile,
                 bool withErrors) {
    return spawnTo(argv, environment, outputFile, withErrors ? outputFile : "/dev/null");
}

ChildResult waitChild(pid_t pid, const fs::path& outputFile, std::chrono::seconds timeout) {
    ChildResult result;
    result.pid = pid;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (pid > 0) {
        const pid_t done = ::waitpid(pid, &result.status, WNOHANG);
        if (done == pid) {
            result.finished = true;
            break;
        }
        if (done < 0 || std::chrono::steady_clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &result.status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    result.output = readFile(outputFile);
    return result;
}

ChildResult runChild(const std::vector<std::string>& argv,
                     const std::map<std::string, std::string>& environment,
                     const fs::path& outputFile, bool withErrors, std::chrono::seconds timeout) {
    return waitChild(spawnChild(argv, environment, outputFile, withErrors), outputFile, timeout);
}

ChildResult runProgram(const std::vector<std::string>& argv, const TempDir& scratch) {
    const std::string errorFile = scratch / "child.err";
    ChildResult result =
        waitChild(spawnTo(argv, {}, scratch / "child.out", errorFile), scratch / "child.out");
    result.errors = readFile(errorFile);
    return result;
}

void ConfigHomeTest::SetUp() {
    ASSERT_FALSE(dir_.path().empty());
    ASSERT_TRUE(fs::create_directory(dir_ / "config"));
    configHome_.emplace("XDG_CONFIG_HOME", dir_ / "config");
}

void ConfigHomeTest::setSuiteSetting(const char* name, const std::string& value) {
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kSuiteKey, name, value));
}

void ConfigHomeTest::setSuiteSetting(const char* name, int value) {
    ASSERT_TRUE(CRegistry::getInstance()->WriteSettingImpl(kSuiteKey, name, value));
}

}  // namespace nimbtest
