// SPDX-License-Identifier: MIT
#include "CrashReport.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <system_error>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace fs = std::filesystem;

namespace {

// How long minidump_stackwalk may take; the crashed process waits for the reporter.
constexpr int kStackwalkTimeoutMs = 10000;
// Frames of the crashing thread shown in a report.
constexpr std::size_t kMaxFrames = 64;

std::vector<std::string> splitFields(const std::string& line) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (;;) {
        const std::size_t bar = line.find('|', start);
        fields.push_back(line.substr(start, bar - start));
        if (bar == std::string::npos) return fields;
        start = bar + 1;
    }
}

// One frame of `thread|frame|module|function|file|line|offset` as a stack line.
std::string describeFrame(const std::vector<std::string>& f) {
    std::ostringstream text;
    text << (f[1].size() < 2 ? " " : "") << f[1] << "  ";
    if (!f[3].empty()) {
        text << (f[2].empty() ? "" : f[2] + "!") << f[3];
        if (!f[4].empty()) text << " [" << f[4] << ":" << f[5] << "]";
    } else if (!f[2].empty()) {
        text << f[2] << " + " << f[6];
    } else {
        text << f[6];
    }
    return text.str();
}

std::string utcNow() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
    gmtime_r(&now, &utc);
    char buffer[32];
    std::strftime(buffer, sizeof(buffer), "%Y-%m-%d %H:%M:%S UTC", &utc);
    return buffer;
}

// Reads everything `fd` delivers until end of file or the deadline.
bool readUntil(int fd, std::chrono::steady_clock::time_point deadline, std::string* out) {
    char buffer[4096];
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p{fd, POLLIN, 0};
        const int ready = poll(&p, 1, static_cast<int>(left.count()));
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        const ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return n == 0;
        out->append(buffer, static_cast<std::size_t>(n));
    }
}

bool isDumpId(const std::string& stem) {
    static const std::regex kId("[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{8}-[0-9a-f]{8}");
    return std::regex_match(stem, kId);
}

// Removes the oldest of `files` (by modification time, then name) beyond `keep`.
void removeOldest(std::vector<fs::directory_entry> files, std::size_t keep,
                  std::vector<std::string>* removed) {
    if (files.size() <= keep) return;
    std::error_code ec;
    std::sort(files.begin(), files.end(), [&ec](const auto& a, const auto& b) {
        const auto ta = a.last_write_time(ec);
        const auto tb = b.last_write_time(ec);
        return ta != tb ? ta < tb : a.path() < b.path();
    });
    for (std::size_t i = 0; i + keep < files.size(); ++i) {
        if (fs::remove(files[i].path(), ec)) removed->push_back(files[i].path().string());
    }
}

}  // namespace

std::optional<CrashReportRequest> parseCrashReporterArguments(const std::vector<std::string>& args,
                                                              std::string* error) {
    CrashReportRequest request;
    if (args.size() == 2 || args.size() == 4) {
        request.dumpPath = args[0];
        request.appName = args[1];
    }
    if (args.size() == 2 && !request.dumpPath.empty()) return request;
    if (args.size() == 4 && !request.dumpPath.empty()) {
        if (args[2] == "-appData") {
            request.appData = args[3];
        } else {
            request.extraArgs = {args[2], args[3]};
        }
        return request;
    }
    *error =
        "usage: NimbCrashReporter <dump> <application> "
        "[-appData <data> | <argument> <argument>]";
    return std::nullopt;
}

std::string reportPathFor(const std::string& dumpPath) {
    fs::path path(dumpPath);
    if (path.extension() == ".dmp") path.replace_extension();
    return path.string() + ".txt";
}

std::optional<StackwalkSummary> parseStackwalkOutput(const std::string& output) {
    StackwalkSummary summary;
    bool sawCrash = false;
    std::istringstream lines(output);
    std::string line;
    while (std::getline(lines, line)) {
        const std::vector<std::string> f = splitFields(line);
        if (f[0] == "Crash" && f.size() >= 4) {
            summary.reason = f[1];
            summary.address = f[2];
            summary.crashingThread = f[3].empty() ? -1 : std::atoi(f[3].c_str());
            sawCrash = true;
        } else if (f.size() == 7 && !f[0].empty() &&
                   std::all_of(f[0].begin(), f[0].end(), ::isdigit)) {
            const int thread = std::atoi(f[0].c_str());
            summary.threadCount = std::max(summary.threadCount, thread + 1);
            if (thread == summary.crashingThread && summary.frames.size() < kMaxFrames) {
                summary.frames.push_back(describeFrame(f));
            }
        }
    }
    if (!sawCrash) return std::nullopt;
    return summary;
}

std::optional<std::string> runStackwalk(const std::string& stackwalk, const std::string& dumpPath,
                                        const std::string& symbols) {
    if (stackwalk.empty() || access(stackwalk.c_str(), X_OK) != 0) return std::nullopt;
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return std::nullopt;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
    const char* argv[] = {stackwalk.c_str(), "-m", dumpPath.c_str(),
                          symbols.empty() ? nullptr : symbols.c_str(), nullptr};
    pid_t pid = -1;
    const int rc = posix_spawn(&pid, stackwalk.c_str(), &actions, nullptr,
                               const_cast<char* const*>(argv), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[1]);
    std::string output;
    bool complete = false;
    if (rc == 0) {
        complete = readUntil(
            pipeFds[0],
            std::chrono::steady_clock::now() + std::chrono::milliseconds(kStackwalkTimeoutMs),
            &output);
        if (!complete) kill(pid, SIGKILL);  // overran: the report falls back to the facts
        int status = 0;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        complete = complete && WIFEXITED(status) && WEXITSTATUS(status) == 0;
    }
    close(pipeFds[0]);
    if (!complete) return std::nullopt;
    return output;
}

std::string buildCrashReport(const CrashReportRequest& request,
                             const std::optional<StackwalkSummary>& summary,
                             const std::string& stackwalkNote, const std::string& symbols) {
    std::ostringstream text;
    std::error_code ec;
    const auto size = fs::file_size(request.dumpPath, ec);
    text << "Crash report\n";
    text << "Application: " << request.appName << "\n";
    text << "Dump: " << request.dumpPath << "\n";
    text << "Dump size: " << (ec ? std::string("missing") : std::to_string(size) + " bytes")
         << "\n";
    text << "Reported: " << utcNow() << "\n";
    if (!request.appData.empty()) text << "Application data: " << request.appData << "\n";
    if (!request.extraArgs.empty()) {
        text << "Arguments: \"" << request.extraArgs[0] << "\" \"" << request.extraArgs[1]
             << "\"\n";
    }
    if (!summary) {
        text << "Stack: not available (" << stackwalkNote << ")\n";
        return text.str();
    }
    text << "Symbols: " << (symbols.empty() ? std::string("none") : symbols) << "\n";
    text << "Crash reason: " << summary->reason << "\n";
    text << "Crash address: " << summary->address << "\n";
    text << "Crashing thread: " << summary->crashingThread << " (of " << summary->threadCount
         << ")\n";
    text << "Stack of the crashing thread:\n";
    for (const std::string& frame : summary->frames) text << "  " << frame << "\n";
    return text.str();
}

bool writeCrashReport(const CrashReportRequest& request, const std::string& stackwalk,
                      const std::string& symbols, std::string* error) {
    std::optional<StackwalkSummary> summary;
    std::string note;
    if (stackwalk.empty()) {
        note = "minidump_stackwalk not found";
    } else if (const auto output = runStackwalk(stackwalk, request.dumpPath, symbols)) {
        summary = parseStackwalkOutput(*output);
        if (!summary) note = "minidump_stackwalk found no crash in the dump";
    } else {
        note = "minidump_stackwalk could not read the dump";
    }
    const std::string path = reportPathFor(request.dumpPath);
    // The report tells as much as the dump about the process: it gets the dump's mode
    // (owner only, as dumps are written), set before any byte is in it.
    struct stat dumpInfo {};
    const mode_t mode =
        ::stat(request.dumpPath.c_str(), &dumpInfo) == 0 ? (dumpInfo.st_mode & 0666) : 0600;
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, mode);
    if (fd >= 0) {
        ::fchmod(fd, mode);
        ::close(fd);
    }
    std::ofstream out(path, std::ios::trunc);
    out << buildCrashReport(request, summary, note, symbols);
    out.close();
    if (!out) {
        *error = "cannot write " + path;
        return false;
    }
    return true;
}

std::vector<std::string> pruneDumpFolder(const std::string& folder, std::size_t keep) {
    std::vector<fs::directory_entry> dumps;
    std::vector<fs::directory_entry> reports;
    std::error_code ec;
    for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
        if (!it->is_regular_file(ec) || !isDumpId(it->path().stem().string())) continue;
        if (it->path().extension() == ".dmp") dumps.push_back(*it);
        if (it->path().extension() == ".txt") reports.push_back(*it);
    }
    std::vector<std::string> removed;
    keep = std::max<std::size_t>(keep, 1);
    removeOldest(std::move(dumps), keep, &removed);
    removeOldest(std::move(reports), keep, &removed);
    return removed;
}
