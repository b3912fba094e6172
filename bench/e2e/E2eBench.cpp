// SPDX-License-Identifier: MIT
// End-to-end ingest benchmark of the collector, run by hand (see docs/operations.md).
//
// Starts its own nats-server on a free loopback port and the real NimbRemoteLogger with
// a private settings home, logs folder and dump folder. Simulated devices (one NATS
// connection each, as a device would have) announce their sources with "SetLogSource"
// and push lines with "AppendLog" round-robin over their logs, keeping a fixed number of
// requests in flight per device; the clock stops when every line is in the log files
// (counted in each file and its ".back"). The same frames are then sent, the same way,
// to a bare NATS echo responder: the floor that the bus transport alone costs, for the
// overhead ratio; the responder is a process of its own (this program, run with
// --echo-responder), so that its CPU time and context switches per request can be set
// beside the collector's. Finally a device of its own sends one request at a time (one
// line each, by default) to each, for the latency of a lone request.
//
// Sources may have different numbers of logs (--logs 1-4: each count in turn), which
// with many sources per device gives the many small logs of a large installation; the
// threads, open files and resident memory after the load tell what they cost.
//
// The collector rotates a log at 512 KiB and keeps one ".back", so a log that received
// more than twice that would lose lines to a second rotation: each log gets at most
// 960 KiB, and the lines are spread over as many logs as that takes.
//
// This file: options, the spread of lines over logs, the run and the report. The
// devices and phases are in E2eDevices, the view of the collector process in E2eProcess.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

#include <nats/nats.h>

#include "E2eDevices.h"
#include "E2eProcess.h"
#include "NatsServer.h"

namespace fs = std::filesystem;
using namespace e2e;

namespace {

constexpr std::size_t kMaxBytesPerLog = 960 * 1024;
constexpr int kDefaultMaxLogSources = 256;  // the collector's, when the setting is absent
constexpr int kDefaultMaxLogsPerDevice = 32;

struct Options {
    int devices = 8;
    int sources = 1;
    int logs = 0;      // per source; 0: as few as the lines need (at least 4 per device)
    int mostLogs = 0;  // with logs: source s has logsOf(s, logs, mostLogs) logs
    int lines = 24000;
    int linesPerRequest = 4;
    int lineBytes = 120;
    int window = 32;
    int loneRequests = 1000;
    int loneLines = 1;
    std::string daemon = NIMB_E2E_DAEMON;
    std::string stdoutFile;
    std::string perfStat;
    bool keep = false;
};

void usage() {
    std::printf(
        "usage: e2e_bench [--devices N] [--sources N] [--logs N|A-B] [--lines N]\n"
        "                 [--lines-per-request N] [--line-bytes N] [--window N]\n"
        "                 [--lone-requests N] [--lone-lines N] [--daemon PATH] [--stdout FILE]\n"
        "                 [--perf-stat FILE] [--keep]\n"
        "  --devices N            simulated devices, one bus connection each (8)\n"
        "  --sources N            sources each device announces, each with its own MAC (1)\n"
        "  --logs N               logs per source (chosen: as few as hold the lines, each\n"
        "                         log at most 960 KiB, at least 4 per device); A-B: from A\n"
        "                         to B logs, source s has A + s %% (B - A + 1)\n"
        "  --lines N              lines each device pushes, spread over its logs (24000)\n"
        "  --lines-per-request N  lines in one AppendLog request (4)\n"
        "  --line-bytes N         bytes of one line, newline included, at least 64 (120)\n"
        "  --window N             requests in flight per device (32)\n"
        "  --lone-requests N      requests sent one at a time, for the latency (1000)\n"
        "  --lone-lines N         lines in each of those requests (1)\n"
        "  --daemon PATH          the collector to run (the one built beside this program)\n"
        "  --stdout FILE          where the collector's standard output goes (/dev/null)\n"
        "  --perf-stat FILE       count the collector's context switches and task-clock\n"
        "                         with \"perf stat -p\" during the load, into FILE\n"
        "  --keep                 keep the run's folder (settings, logs) afterwards\n");
}

bool parseOptions(int argc, char** argv, Options& options) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto number = [&](int& target) {
            if (i + 1 >= argc) return false;
            target = std::atoi(argv[++i]);
            return target > 0;
        };
        auto text = [&](std::string& target) {
            if (i + 1 >= argc) return false;
            target = argv[++i];
            return true;
        };
        bool ok = true;
        if (arg == "--devices")
            ok = number(options.devices);
        else if (arg == "--sources")
            ok = number(options.sources);
        else if (arg == "--logs") {
            if (i + 1 < argc && std::strchr(argv[i + 1], '-')) {
                ok = std::sscanf(argv[++i], "%d-%d", &options.logs, &options.mostLogs) == 2 &&
                     options.logs > 0 && options.mostLogs >= options.logs;
            } else {
                ok = number(options.logs);
                options.mostLogs = options.logs;
            }
        } else if (arg == "--lines")
            ok = number(options.lines);
        else if (arg == "--lines-per-request")
            ok = number(options.linesPerRequest);
        else if (arg == "--line-bytes")
            ok = number(options.lineBytes) && options.lineBytes >= 64;
        else if (arg == "--window")
            ok = number(options.window);
        else if (arg == "--lone-requests")
            ok = number(options.loneRequests);
        else if (arg == "--lone-lines")
            ok = number(options.loneLines);
        else if (arg == "--daemon")
            ok = text(options.daemon);
        else if (arg == "--stdout")
            ok = text(options.stdoutFile);
        else if (arg == "--perf-stat")
            ok = text(options.perfStat);
        else if (arg == "--keep")
            options.keep = true;
        else
            ok = false;
        if (!ok) {
            std::fprintf(stderr, "e2e_bench: bad option %s\n", arg.c_str());
            return false;
        }
    }
    return true;
}

// How a device's lines are spread: `logs` logs, each receiving `linesPerLog` lines in
// requests of `linesPerRequest`, round-robin.
struct Spread {
    int logs = 0;
    int linesPerLog = 0;
    int linesPerRequest = 0;

    int requests() const { return linesPerLog / linesPerRequest * logs; }
    std::size_t bytesPerLog(int lineBytes) const {
        return static_cast<std::size_t>(linesPerLog) * static_cast<std::size_t>(lineBytes);
    }
};

// Spreads `lines` over `logs` logs (rounded up to whole requests), or, when `logs` is
// 0, over as few logs (a multiple of `unit`, at least `least`) as keep each log within
// kMaxBytesPerLog.
Spread spread(int lines, int linesPerRequest, int lineBytes, int logs, int unit, int least) {
    auto make = [&](int n) {
        Spread s;
        s.logs = n;
        s.linesPerRequest = linesPerRequest;
        const int requestsPerLog = (lines + n * linesPerRequest - 1) / (n * linesPerRequest);
        s.linesPerLog = requestsPerLog * linesPerRequest;
        return s;
    };
    if (logs > 0) return make(logs);
    int n = std::max(unit, (least + unit - 1) / unit * unit);
    while (make(n).bytesPerLog(lineBytes) > kMaxBytesPerLog &&
           make(n).linesPerLog > linesPerRequest)
        n += unit;
    return make(n);
}

void writeFile(const fs::path& path, const std::string& text) { std::ofstream(path) << text; }

double mib(long kib) { return static_cast<double>(kib) / 1024.0; }

// The bare echo responder, as a process of its own: says "ready" once it listens, and
// ends when its standard input closes (the benchmark is done, or gone).
int echoResponder(int port) {
    natsConnection* connection = connect(port);
    natsSubscription* subscription = nullptr;
    if (natsConnection_QueueSubscribe(&subscription, connection, kEchoSubject, "echo", &echo,
                                      nullptr) != NATS_OK ||
        natsSubscription_SetPendingLimits(subscription, -1, -1) != NATS_OK ||
        natsConnection_Flush(connection) != NATS_OK)
        return 1;
    std::printf("ready\n");
    std::fflush(stdout);
    char ignored[64];
    while (::read(STDIN_FILENO, ignored, sizeof ignored) > 0) {
    }
    natsSubscription_Destroy(subscription);
    natsConnection_Destroy(connection);
    return 0;
}

std::string self() {
    char path[4096];
    const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
    return n > 0 ? std::string(path, static_cast<std::size_t>(n)) : std::string();
}

void printUsage(const char* when, const ProcessUsage& usage) {
    std::printf("  %-30s %6d threads %7d open files %8.1f MiB resident (peak %.1f)\n", when,
                usage.threads, usage.openFiles, mib(usage.residentKiB), mib(usage.peakResidentKiB));
}

}  // namespace

int main(int argc, char** argv) {
    Options options;
    if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
        usage();
        return 0;
    }
    if (argc == 3 && std::strcmp(argv[1], "--echo-responder") == 0)
        return echoResponder(std::atoi(argv[2]));
    if (!parseOptions(argc, argv, options)) {
        usage();
        return 64;
    }
    int logsPerDevice = 0;  // given: the sum over the sources; 0: as the lines need
    if (options.logs > 0)
        for (int s = 0; s < options.sources; ++s)
            logsPerDevice += logsOf(s, options.logs, options.mostLogs);
    const Spread load = spread(options.lines, options.linesPerRequest, options.lineBytes,
                               logsPerDevice, options.sources, 4);
    if (load.bytesPerLog(options.lineBytes) > kMaxBytesPerLog) {
        std::fprintf(stderr,
                     "e2e_bench: each log would get %zu bytes (%d lines of %d bytes), more than "
                     "the %zu bytes per log that rotation keeps; give more --logs (or leave it "
                     "out) or fewer --lines\n",
                     load.bytesPerLog(options.lineBytes), load.linesPerLog, options.lineBytes,
                     kMaxBytesPerLog);
        return 64;
    }
    const Spread lone = spread(options.loneRequests * options.loneLines, options.loneLines,
                               options.lineBytes, 0, 1, 1);
    if (lone.bytesPerLog(options.lineBytes) > kMaxBytesPerLog) {
        std::fprintf(stderr,
                     "e2e_bench: one lone request of %d lines of %d bytes is more than the %zu "
                     "bytes per log that rotation keeps; give fewer --lone-lines\n",
                     options.loneLines, options.lineBytes, kMaxBytesPerLog);
        return 64;
    }
    const int fewestLogs = options.logs > 0 ? options.logs : load.logs / options.sources;
    const int mostLogs = options.logs > 0 ? options.mostLogs : fewestLogs;
    const int totalLogs = options.devices * load.logs + lone.logs;
    const int maxLogSources = std::max(kDefaultMaxLogSources, totalLogs);

    char folderTemplate[] = "/tmp/nimb-e2e-XXXXXX";
    if (!::mkdtemp(folderTemplate)) {
        std::perror("e2e_bench: mkdtemp");
        return 1;
    }
    const fs::path folder = folderTemplate;
    const fs::path logs = folder / "logs";
    fs::create_directories(folder / "config" / "pellix");
    fs::create_directories(logs);
    fs::create_directories(folder / "dumps");

    NatsServer nats;
    writeFile(folder / "config/pellix/com.pellix.nimb.json",
              "{\"LogsDir\": \"" + logs.string() + "\", \"LogLevel\": 1}\n");
    const std::string perDevice = mostLogs > kDefaultMaxLogsPerDevice
                                      ? ", \"MaxLogsPerDevice\": " + std::to_string(mostLogs)
                                      : std::string();
    writeFile(folder / "config/pellix/com.pellix.nimb.config.json",
              "{\"kibDirectory.host\": \"127.0.0.1:" + std::to_string(nats.port()) +
                  "\", \"MaxLogSources\": " + std::to_string(maxLogSources) + perDevice + "}\n");
    ::setenv("XDG_CONFIG_HOME", (folder / "config").c_str(), 1);
    ::setenv("TMPDIR", (folder / "dumps").c_str(), 1);

    // Start-up: from the fork to the "connected" line in the collector's own log.
    const Clock::time_point launched = Clock::now();
    const pid_t daemon = startDaemon(options.daemon, options.stdoutFile, folder / "daemon.err");
    const bool connected =
        waitForText(logs / "NimbRemoteLogger.log", "connected", daemon, std::chrono::seconds(30));
    const double startupMs =
        std::chrono::duration<double, std::milli>(Clock::now() - launched).count();
    if (!connected) {
        std::fprintf(stderr, "e2e_bench: the collector did not connect (see %s)\n",
                     (folder / "daemon.err").c_str());
        return 1;
    }
    const ProcessUsage atRest = processUsage(daemon);

    std::vector<std::unique_ptr<Device>> devices;
    for (int d = 0; d < options.devices; ++d) {
        devices.push_back(makeDevice(d, options.sources, fewestLogs, mostLogs,
                                     options.linesPerRequest, options.lineBytes, nats.port()));
    }
    std::vector<std::unique_ptr<Device>> loneDevice;
    loneDevice.push_back(makeDevice(options.devices, 1, lone.logs, lone.logs, options.loneLines,
                                    options.lineBytes, nats.port()));
    const Clock::time_point announceStart = Clock::now();
    if (!announceAll(devices, daemon) || !announceAll(loneDevice, daemon)) {
        std::fprintf(stderr, "e2e_bench: SetLogSource failed (see %s)\n",
                     (folder / "daemon.err").c_str());
        return 1;
    }
    const double announceSeconds =
        std::chrono::duration<double>(Clock::now() - announceStart).count();

    // Collector, under load, until every line is in the files.
    const fs::path perfFile =
        options.perfStat.empty() ? fs::path() : fs::absolute(options.perfStat);
    const pid_t counter = perfFile.empty() ? -1 : startCounting(daemon, perfFile);
    const ProcessUsage before = processUsage(daemon);
    const Clock::time_point start = Clock::now();
    const PhaseResult collector =
        runPhase(devices, kAppendSubject, load.requests(), options.window, &acceptCollectorReply);
    const bool complete =
        waitForLines(filesOf(logs, devices), static_cast<std::size_t>(load.linesPerLog) + 2,
                     std::chrono::seconds(60));
    const double inFiles = std::chrono::duration<double>(Clock::now() - start).count();
    const ProcessUsage after = processUsage(daemon);
    const Counted counted = stopCounting(counter, perfFile);
    const PhaseResult collectorLone =
        runPhase(loneDevice, kAppendSubject, lone.requests(), 1, &acceptCollectorReply);
    const bool loneComplete =
        waitForLines(filesOf(logs, loneDevice), static_cast<std::size_t>(lone.linesPerLog) + 2,
                     std::chrono::seconds(30));
    const ProcessUsage peak = processUsage(daemon);

    // The bare transport with the same frames, the same devices and the same window.
    Helper echoProcess = startHelper({self(), "--echo-responder", std::to_string(nats.port())});
    if (readHelperLine(echoProcess, std::chrono::seconds(10)) != "ready") {
        std::fprintf(stderr, "e2e_bench: the echo responder did not start\n");
        stopHelper(echoProcess);
        stopDaemon(daemon);
        return 1;
    }
    const ProcessUsage echoBefore = processUsage(echoProcess.pid);
    const PhaseResult bare =
        runPhase(devices, kEchoSubject, load.requests(), options.window, &acceptEcho);
    const ProcessUsage echoAfter = processUsage(echoProcess.pid);
    const PhaseResult bareLone =
        runPhase(loneDevice, kEchoSubject, lone.requests(), 1, &acceptEcho);

    for (auto& device : devices) closeDevice(*device);
    closeDevice(*loneDevice.front());
    stopHelper(echoProcess);
    const int exitStatus = stopDaemon(daemon);

    const double lines = static_cast<double>(load.linesPerLog) * load.logs * options.devices;
    const double requests = static_cast<double>(load.requests()) * options.devices;
    const double megabytes = lines * options.lineBytes / 1e6;
    const double bareLinesPerSecond = lines / bare.seconds;
    const std::string logsPerSource =
        fewestLogs == mostLogs ? std::to_string(fewestLogs)
                               : std::to_string(fewestLogs) + "-" + std::to_string(mostLogs);
    std::printf(
        "e2e ingest: %d devices x %d sources x %s logs (%d logs), %d lines of %d bytes per log, "
        "%d lines per request, %d requests in flight per device; lone requests: %d of %d lines "
        "over %d logs\n",
        options.devices, options.sources, logsPerSource.c_str(), totalLogs, load.linesPerLog,
        options.lineBytes, options.linesPerRequest, options.window, lone.requests(),
        options.loneLines, lone.logs);
    std::printf("%-34s %11s %8s %9s %9s\n", "", "lines/s", "MB/s", "p50 ms", "p99 ms");
    std::printf("%-34s %11.0f %8.1f %9.3f %9.3f\n", "collector, until in the files",
                lines / inFiles, megabytes / inFiles, collector.p50, collector.p99);
    std::printf("%-34s %11.0f %8.1f %9s %9s\n", "collector, until acknowledged",
                lines / collector.seconds, megabytes / collector.seconds, "", "");
    std::printf("%-34s %11.0f %8.1f %9.3f %9.3f\n", "bare NATS echo, same frames",
                bareLinesPerSecond, megabytes / bare.seconds, bare.p50, bare.p99);
    const double loneLineCount = static_cast<double>(lone.requests()) * options.loneLines;
    std::printf("%-34s %11.0f %8s %9.3f %9.3f\n", "one request in flight: collector",
                loneLineCount / collectorLone.seconds, "", collectorLone.p50, collectorLone.p99);
    std::printf("%-34s %11.0f %8s %9.3f %9.3f\n", "one request in flight: bare NATS",
                loneLineCount / bareLone.seconds, "", bareLone.p50, bareLone.p99);
    std::printf(
        "ratios: collector / bare NATS: time for the same requests %.2fx, lone request p50 "
        "%.2fx\n",
        inFiles / bare.seconds, collectorLone.p50 / bareLone.p50);
    const double cpu = after.cpuSeconds() - before.cpuSeconds();
    const double switches = static_cast<double>(after.contextSwitches - before.contextSwitches);
    std::printf(
        "collector process under load: %.2f s CPU (user %.2f, system %.2f) over %.2f s = %.0f%% "
        "of one core; %.2f us CPU per line, %.1f us per request; %.2f context switches per "
        "request\n",
        cpu, after.userSeconds - before.userSeconds, after.systemSeconds - before.systemSeconds,
        inFiles, 100.0 * cpu / inFiles, 1e6 * cpu / lines, 1e6 * cpu / requests,
        switches / requests);
    const double echoCpu = echoAfter.cpuSeconds() - echoBefore.cpuSeconds();
    const double echoSwitches =
        static_cast<double>(echoAfter.contextSwitches - echoBefore.contextSwitches);
    std::printf(
        "echo process under load: %.2f s CPU over %.2f s; %.1f us per request, %.2f context "
        "switches per request; collector / echo CPU per request %.2fx\n",
        echoCpu, bare.seconds, 1e6 * echoCpu / requests, echoSwitches / requests,
        echoCpu > 0 ? cpu / echoCpu : 0.0);
    if (counter > 0) {
        if (counted.ok)
            std::printf(
                "perf stat of the collector during the load: %.0f context switches (%.2f per "
                "request), task-clock %.0f ms (%.1f us per request)\n",
                counted.contextSwitches, counted.contextSwitches / requests, counted.taskClockMs,
                1e3 * counted.taskClockMs / requests);
        else
            std::printf("perf stat of the collector: no counts in %s\n", options.perfStat.c_str());
    }
    std::printf("collector start-up to \"connected\": %.1f ms; %d logs announced in %.2f s\n",
                startupMs, totalLogs, announceSeconds);
    printUsage("after start-up:", atRest);
    printUsage("after announcing:", before);
    printUsage("after the load:", after);
    printUsage("after the lone requests:", peak);
    const int failures = collector.failed + collectorLone.failed + bare.failed + bareLone.failed;
    const bool exitedCleanly = WIFEXITED(exitStatus) && WEXITSTATUS(exitStatus) == 0;
    std::printf("checks: %s lines in the files, %d failed replies, collector %s\n",
                complete && loneComplete ? "all" : "NOT all", failures,
                exitedCleanly ? "exited with 0" : "did NOT exit cleanly");
    // One line for scripts.
    std::printf(
        "summary: lines=%.0f collector_lines_per_s=%.0f collector_cpu_us_per_line=%.3f "
        "collector_cpu_us_per_request=%.2f context_switches_per_request=%.2f "
        "echo_lines_per_s=%.0f echo_cpu_us_per_request=%.2f echo_context_switches_per_request=%.2f "
        "lone_p50_ms=%.3f echo_lone_p50_ms=%.3f startup_ms=%.1f logs=%d announce_s=%.2f "
        "load_s=%.2f rss_mib=%.1f hwm_mib=%.1f peak_rss_mib=%.1f threads=%d open_files=%d "
        "failed=%d complete=%d\n",
        lines, lines / inFiles, 1e6 * cpu / lines, 1e6 * cpu / requests, switches / requests,
        bareLinesPerSecond, 1e6 * echoCpu / requests, echoSwitches / requests, collectorLone.p50,
        bareLone.p50, startupMs, totalLogs, announceSeconds, inFiles, mib(after.residentKiB),
        mib(after.peakResidentKiB), mib(peak.peakResidentKiB), after.threads, after.openFiles,
        failures, complete && loneComplete ? 1 : 0);
    if (options.keep) {
        std::printf("run folder kept: %s\n", folder.c_str());
    } else {
        std::error_code ignored;
        fs::remove_all(folder, ignored);
    }
    return complete && loneComplete && failures == 0 && exitedCleanly ? 0 : 1;
}
