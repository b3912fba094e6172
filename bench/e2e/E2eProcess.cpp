// SPDX-License-Identifier: MIT
#include "E2eProcess.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

namespace e2e {

namespace {

// The value of `key` ("Threads:", "VmRSS:", ...) in a /proc status file, or 0.
long statusField(const std::string& status, const char* key) {
    const std::size_t at = status.find(std::string("\n") + key);
    return at == std::string::npos ? 0 : std::atol(status.c_str() + at + 1 + std::strlen(key));
}

std::string readAll(const fs::path& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::size_t countNewlines(const fs::path& path) {
    const int fd = ::open(path.c_str(), O_RDONLY);
    if (fd < 0) return 0;
    std::size_t count = 0;
    char buffer[1 << 16];
    ssize_t n;
    while ((n = ::read(fd, buffer, sizeof buffer)) > 0)
        count += static_cast<std::size_t>(std::count(buffer, buffer + n, '\n'));
    ::close(fd);
    return count;
}

}  // namespace

ProcessUsage processUsage(pid_t pid) {
    ProcessUsage usage;
    const fs::path proc = "/proc/" + std::to_string(pid);
    const std::string stat = readAll(proc / "stat");
    const std::size_t paren = stat.rfind(')');
    if (paren != std::string::npos) {
        std::istringstream fields(stat.substr(paren + 2));
        std::string field;
        // Fields after the name start with the state (field 3); utime and stime are 14, 15.
        for (int i = 3; i <= 15 && (fields >> field); ++i) {
            const double ticks = static_cast<double>(::sysconf(_SC_CLK_TCK));
            if (i == 14) usage.userSeconds = std::stod(field) / ticks;
            if (i == 15) usage.systemSeconds = std::stod(field) / ticks;
        }
    }
    const std::string status = "\n" + readAll(proc / "status");
    usage.residentKiB = statusField(status, "VmRSS:");
    usage.peakResidentKiB = statusField(status, "VmHWM:");
    usage.threads = static_cast<int>(statusField(status, "Threads:"));
    std::error_code error;
    for (const auto& task : fs::directory_iterator(proc / "task", error)) {
        const std::string taskStatus = "\n" + readAll(task.path() / "status");
        usage.contextSwitches += statusField(taskStatus, "voluntary_ctxt_switches:") +
                                 statusField(taskStatus, "nonvoluntary_ctxt_switches:");
    }
    for (auto it = fs::directory_iterator(proc / "fd", error); !error && it != fs::end(it);
         it.increment(error))
        ++usage.openFiles;
    return usage;
}

pid_t startDaemon(const std::string& path, const std::string& output, const fs::path& errors) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        const int out = ::open(output.empty() ? "/dev/null" : output.c_str(),
                               O_WRONLY | O_CREAT | O_TRUNC, 0644);
        const int err = ::open(errors.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        ::execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    return pid;
}

int stopDaemon(pid_t pid) {
    ::kill(pid, SIGTERM);
    int status = 0;
    for (int i = 0; i < 200; ++i) {
        if (::waitpid(pid, &status, WNOHANG) == pid) return status;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    ::kill(pid, SIGKILL);
    ::waitpid(pid, &status, 0);
    return status;
}

bool waitForText(const fs::path& file, const std::string& text, pid_t pid,
                 std::chrono::milliseconds limit) {
    const Clock::time_point deadline = Clock::now() + limit;
    while (Clock::now() < deadline) {
        if (readAll(file).find(text) != std::string::npos) return true;
        if (::kill(pid, 0) != 0) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return false;
}

bool waitForLines(const std::vector<fs::path>& files, std::size_t lines,
                  std::chrono::seconds timeout) {
    std::vector<bool> done(files.size(), false);
    const Clock::time_point deadline = Clock::now() + timeout;
    for (;;) {
        bool all = true;
        for (std::size_t i = 0; i < files.size(); ++i) {
            if (done[i]) continue;
            fs::path back = files[i];
            back += ".back";
            const std::size_t found = countNewlines(files[i]) + countNewlines(back);
            if (found > lines) {
                std::fprintf(stderr, "e2e_bench: %s holds %zu lines, more than the %zu sent\n",
                             files[i].c_str(), found, lines);
                return false;
            }
            done[i] = found == lines;
            all = all && done[i];
        }
        if (all) return true;
        if (Clock::now() > deadline) {
            for (std::size_t i = 0; i < files.size(); ++i)
                if (!done[i])
                    std::fprintf(stderr, "e2e_bench: %s is incomplete\n", files[i].c_str());
            return false;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

}  // namespace e2e
