// SPDX-License-Identifier: MIT
// The collector as the ingest benchmark sees it from outside: started and stopped as a
// child process, watched through /proc (CPU time, memory, threads, open files, context
// switches) and through its files (the "connected" line, the lines in each log).
// Main thread of the benchmark only.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <sys/types.h>

namespace e2e {

// What /proc tells about a process at one moment.
struct ProcessUsage {
    double userSeconds = 0;
    double systemSeconds = 0;
    long residentKiB = 0;      // VmRSS
    long peakResidentKiB = 0;  // VmHWM
    int threads = 0;
    int openFiles = 0;
    long contextSwitches = 0;  // voluntary and involuntary, summed over its threads

    double cpuSeconds() const { return userSeconds + systemSeconds; }
};

ProcessUsage processUsage(pid_t pid);

// Starts `path` with standard output into `output` (/dev/null when empty) and standard
// error into `errors`.
pid_t startDaemon(const std::string& path, const std::string& output,
                  const std::filesystem::path& errors);
// SIGTERM, then SIGKILL after 10 s; returns the wait status.
int stopDaemon(pid_t pid);

// A helper program of the benchmark, `arguments` (the program first) run as a child:
// its standard input is a pipe that `input` keeps open (closing it tells the helper to
// end), its standard output a pipe read through `output`.
struct Helper {
    pid_t pid = -1;
    int input = -1;
    int output = -1;
};
Helper startHelper(const std::vector<std::string>& arguments);
// Reads one line of the helper's output (up to `limit`); empty when it ended first.
std::string readHelperLine(const Helper& helper, std::chrono::milliseconds limit);
// Closes its input, then waits for it (SIGKILL after 10 s); returns the wait status.
int stopHelper(Helper& helper);

// "perf stat" counting the context switches and the CPU time (task-clock) of every
// thread of `pid` into `file`, from now until stopCounting().
pid_t startCounting(pid_t pid, const std::filesystem::path& file);
struct Counted {
    bool ok = false;
    double contextSwitches = 0;
    double taskClockMs = 0;
};
Counted stopCounting(pid_t counter, const std::filesystem::path& file);

// Waits until `file` holds `text`, polling every millisecond; false after `limit` or
// when `pid` ended.
bool waitForText(const std::filesystem::path& file, const std::string& text, pid_t pid,
                 std::chrono::milliseconds limit);

// Waits until each of `files` (counted with its ".back") holds exactly `lines` newlines;
// false after `timeout`, or at once when one holds more, naming the files.
bool waitForLines(const std::vector<std::filesystem::path>& files, std::size_t lines,
                  std::chrono::seconds timeout);

}  // namespace e2e
