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
#include <poll.h>
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

Helper startHelper(const std::vector<std::string>& arguments) {
    int in[2];
    int out[2];
    Helper helper;
    if (::pipe2(in, O_CLOEXEC) != 0) return helper;
    if (::pipe2(out, O_CLOEXEC) != 0) {
        ::close(in[0]);
        ::close(in[1]);
        return helper;
    }
    std::vector<char*> argv;
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    helper.pid = pid;
    helper.input = in[1];
    helper.output = out[0];
    return helper;
}

std::string readHelperLine(const Helper& helper, std::chrono::milliseconds limit) {
    std::string line;
    const Clock::time_point deadline = Clock::now() + limit;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
        if (left.count() <= 0) return std::string();
        pollfd readable{helper.output, POLLIN, 0};
        if (::poll(&readable, 1, static_cast<int>(left.count())) <= 0) continue;
        char c;
        if (::read(helper.output, &c, 1) != 1) return std::string();
        if (c == '\n') return line;
        line += c;
    }
}

int stopHelper(Helper& helper) {
    int status = 0;
    if (helper.pid < 0) return status;
    ::close(helper.input);
    for (int i = 0; i < 200; ++i) {
        if (::waitpid(helper.pid, &status, WNOHANG) == helper.pid) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        if (i == 199) {
            ::kill(helper.pid, SIGKILL);
            ::waitpid(helper.pid, &status, 0);
        }
    }
    ::close(helper.output);
    helper.pid = -1;
    return status;
}

pid_t startCounting(pid_t pid, const fs::path& file) {
    const std::string target = std::to_string(pid);
    const pid_t counter = ::fork();
    if (counter == 0) {
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDOUT_FILENO);
        ::dup2(null, STDERR_FILENO);
        ::execlp("perf", "perf", "stat", "-x", ",", "-e", "context-switches,task-clock", "-p",
                 target.c_str(), "-o", file.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    // perf attaches to the threads after it started: give it a moment.
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    return counter;
}

Counted stopCounting(pid_t counter, const fs::path& file) {
    Counted counted;
    if (counter <= 0) return counted;
    ::kill(counter, SIGINT);
    int status = 0;
    ::waitpid(counter, &status, 0);
    // CSV lines: value,unit,event,...
    std::ifstream in(file);
    std::string line;
    int found = 0;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        const std::size_t comma = line.find(',');
        if (comma == std::string::npos) continue;
        const double value = std::atof(line.c_str());
        if (line.find(",context-switches") != std::string::npos) {
            counted.contextSwitches = value;
            ++found;
        } else if (line.find(",task-clock") != std::string::npos) {
            counted.taskClockMs = value;
            ++found;
        }
    }
    counted.ok = found == 2;
    return counted;
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
