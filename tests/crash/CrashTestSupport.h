// SPDX-License-Identifier: MIT
// Test support for tests that run child programs: a private temporary folder that is
// removed with everything in it, child processes with a bounded wait, and small file
// helpers. Used by the dump manager's, the crash reporter's and the module host's tests,
// on the test's thread.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace crashtest {

namespace fs = std::filesystem;

// A fresh folder under the system's temporary folder; removed on destruction.
class TempFolder {
public:
    TempFolder() {
        std::string pattern = (fs::temp_directory_path() / "nimb-crash-XXXXXX").string();
        if (mkdtemp(pattern.data()) != nullptr) path_ = pattern;
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() {
        std::error_code ec;
        if (!path_.empty()) fs::remove_all(path_, ec);
    }
    const fs::path& path() const { return path_; }

private:
    fs::path path_;
};

inline std::string readFile(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

inline void writeFile(const fs::path& path, const std::string& text) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << text;
}

inline std::vector<std::string> readLines(const fs::path& path) {
    std::vector<std::string> lines;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Files in `folder` whose names end in `extension`, sorted.
inline std::vector<fs::path> filesWithExtension(const fs::path& folder,
                                                const std::string& extension) {
    std::vector<fs::path> found;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        if (it->path().extension() == extension) found.push_back(it->path());
    }
    std::sort(found.begin(), found.end());
    return found;
}

struct ChildResult {
    int pid = -1;
    bool finished = false;  // false: it overran and was killed
    int status = 0;         // as waitpid gives it
    std::string output;     // standard output and error
};

// Starts `argv` with `environment` added to this process's environment, its standard
// output (and its errors, when `withErrors`) going to `outputFile`. Returns the pid.
inline pid_t spawnChild(const std::vector<std::string>& argv,
                        const std::map<std::string, std::string>& environment,
                        const fs::path& outputFile, bool withErrors = true) {
    const pid_t pid = fork();
    if (pid != 0) return pid;
    for (const auto& [name, value] : environment) setenv(name.c_str(), value.c_str(), 1);
    const int fd = open(outputFile.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (fd >= 0) {
        dup2(fd, STDOUT_FILENO);
        if (withErrors) dup2(fd, STDERR_FILENO);
    }
    if (!withErrors) {
        const int null = open("/dev/null", O_WRONLY);
        if (null >= 0) dup2(null, STDERR_FILENO);
    }
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

// Waits at most `timeout` for `pid` to end, then kills it.
inline ChildResult waitChild(pid_t pid, const fs::path& outputFile,
                             std::chrono::seconds timeout = std::chrono::seconds(60)) {
    ChildResult result;
    result.pid = pid;
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (pid > 0) {
        const pid_t done = waitpid(pid, &result.status, WNOHANG);
        if (done == pid) {
            result.finished = true;
            break;
        }
        if (done < 0 || std::chrono::steady_clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &result.status, 0);
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    result.output = readFile(outputFile);
    return result;
}

// Runs `argv` as spawnChild() does and waits for it as waitChild() does.
inline ChildResult runChild(const std::vector<std::string>& argv,
                            const std::map<std::string, std::string>& environment,
                            const fs::path& outputFile, bool withErrors = true,
                            std::chrono::seconds timeout = std::chrono::seconds(60)) {
    return waitChild(spawnChild(argv, environment, outputFile, withErrors), outputFile, timeout);
}

// Standard output of `program args...` (bounded in time), whatever its exit status
// (minidump_dump reports 1 for dumps it reads in full); empty when it overran.
inline std::string captureOutput(const fs::path& scratch, const std::vector<std::string>& argv) {
    const fs::path out = scratch / "capture.txt";
    const ChildResult run = runChild(argv, {}, out, false);
    std::error_code ec;
    fs::remove(out, ec);
    return run.finished ? run.output : std::string();
}

}  // namespace crashtest
