// SPDX-License-Identifier: MIT
// Requests that nimb-logpush --follow spends on a file that grows while the collector
// answers, run by hand: build/bench/logpush/logpush_bench [--lines N] [--line-bytes N].
//
// Starts its own nats-server on a free loopback port and a stand-in collector that takes
// "SetLogSource" and "AppendLog", counts the appends and answers each one after a set
// delay. For each scenario a fresh nimb-logpush follows a new file in a private folder
// while the lines are appended to it: all at once (a backlog), or one at a time with a
// pause between them. The clock stops when the collector holds every line; the report
// gives the AppendLog requests that took, per 10,000 lines, and the elapsed time.
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include "KibSatellite.h"
#include "NatsServer.h"
#include "VUtil.h"

namespace fs = std::filesystem;

namespace {

struct Options {
    int lines = 10000;
    int lineBytes = 120;
};

struct Scenario {
    const char* name;
    int paceUs;   // pause between two appended lines; 0: all written at once
    int replyMs;  // how long the collector takes to answer one AppendLog
};

const Scenario kScenarios[] = {
    {"backlog, quick replies", 0, 0},
    {"backlog, 5 ms replies", 0, 5},
    {"a line every 50 us, quick replies", 50, 0},
    {"a line every 50 us, 5 ms replies", 50, 5},
    {"a line every 500 us, 5 ms replies", 500, 5},
};

// Takes every request, counting the appends and the lines they carry.
class CountingCollector : public KibSatellite {
public:
    using Delegate = KibSatelliteDelegateMember<CountingCollector>;
    ~CountingCollector() override { Disconnect(); }

    int CreateServices() override {
        AddService("SetLogSource", "", new Delegate(this, &CountingCollector::setLogSource));
        return AddService("AppendLog", "", new Delegate(this, &CountingCollector::appendLog));
    }

    std::atomic<int> replyMs{0};
    std::atomic<long> requests{0};
    std::atomic<long> lines{0};

private:
    int setLogSource(const char*, const tagVARIANT&, tagVARIANT*) { return 0; }

    int appendLog(const char*, const tagVARIANT& in, tagVARIANT*) {
        const std::string content = VUtil::GetStringElement(in, 2);
        std::this_thread::sleep_for(std::chrono::milliseconds(replyMs.load()));
        long count = 0;
        for (const char c : content) count += c == '\n' ? 1 : 0;
        lines += count;
        ++requests;
        return 0;
    }
};

pid_t startLogPush(const std::string& host, const std::string& file, const std::string& home) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::setenv("XDG_CONFIG_HOME", home.c_str(), 1);
        ::execl(NIMB_LOGPUSH, NIMB_LOGPUSH, "--host", host.c_str(), "-f", "--log", "bench",
                file.c_str(), static_cast<char*>(nullptr));
        ::_exit(127);
    }
    return pid;
}

bool waitUntil(const std::function<bool()>& done, std::chrono::seconds limit) {
    const auto until = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= until) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Runs one scenario; false when the lines did not all arrive within a minute.
bool runScenario(const Scenario& scenario, const Options& options, const std::string& host,
                 CountingCollector& collector, const fs::path& folder) {
    const fs::path file = folder / (std::to_string(&scenario - kScenarios) + ".log");
    std::FILE* out = std::fopen(file.c_str(), "w");
    if (out == nullptr) return false;
    collector.replyMs = scenario.replyMs;
    collector.requests = 0;
    collector.lines = 0;
    const pid_t pid = startLogPush(host, file.string(), folder.string());
    // The announcement has gone out once the empty file is being followed.
    std::this_thread::sleep_for(std::chrono::milliseconds(500));

    const auto started = std::chrono::steady_clock::now();
    for (int i = 0; i < options.lines; ++i) {
        std::string line = "2026-11-22 10:00:00 bench line " + std::to_string(i) + " ";
        line.resize(static_cast<std::size_t>(options.lineBytes) - 1, 'x');
        line += '\n';
        std::fputs(line.c_str(), out);
        if (scenario.paceUs > 0) {
            std::fflush(out);
            std::this_thread::sleep_for(std::chrono::microseconds(scenario.paceUs));
        }
    }
    std::fclose(out);
    const bool arrived =
        waitUntil([&] { return collector.lines >= options.lines; }, std::chrono::seconds(60));
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    ::kill(pid, SIGTERM);
    ::waitpid(pid, nullptr, 0);
    if (!arrived) return false;
    const double per10k = static_cast<double>(collector.requests) * 10000.0 / options.lines;
    std::printf("%-36s %10ld %14.1f %9.2f\n", scenario.name, collector.requests.load(), per10k,
                seconds);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string arg = argv[i];
        if (arg == "--lines")
            options.lines = std::atoi(argv[i + 1]);
        else if (arg == "--line-bytes")
            options.lineBytes = std::atoi(argv[i + 1]);
    }
    if (argc % 2 == 0 || options.lines <= 0 || options.lineBytes < 48) {
        std::fprintf(stderr, "usage: logpush_bench [--lines N] [--line-bytes N (>= 48)]\n");
        return 2;
    }
    char folderTemplate[] = "/tmp/logpush_bench.XXXXXX";
    if (::mkdtemp(folderTemplate) == nullptr) return 1;
    const fs::path folder = folderTemplate;

    NatsServer nats;
    CountingCollector collector;
    if (collector.Connect(nats.host().c_str(), "RemoteLogger") != KIB_OK) {
        std::fprintf(stderr, "logpush_bench: the stand-in collector cannot connect\n");
        return 1;
    }
    std::printf("%d lines of %d bytes\n%-36s %10s %14s %9s\n", options.lines, options.lineBytes,
                "scenario", "requests", "per 10k lines", "seconds");
    int status = 0;
    for (const Scenario& scenario : kScenarios) {
        if (!runScenario(scenario, options, nats.host(), collector, folder)) {
            std::printf("%-36s did not arrive within a minute\n", scenario.name);
            status = 1;
        }
    }
    fs::remove_all(folder);
    return status;
}
