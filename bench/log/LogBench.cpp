// SPDX-License-Identifier: MIT
// Throughput and caller cost of the file logger, beside spdlog's asynchronous rotating
// file logger writing the same lines and beside one plain write() per line (the floor:
// formatting plus a synchronous append on the caller's thread).
//
// Each iteration logs kTotalLines lines from 1 or 4 threads into a fresh logs folder
// and ends once every line is in the file (the logger drained and closed); the time
// reported is that whole span, so items_per_second is the end-to-end line rate. The
// counter caller_ns is the mean time a calling thread spent per line. Standard output,
// which the logger echoes every line to, is sent to /dev/null; the results are printed
// on the original standard output.
//
//   build/bench/log/log_bench [--benchmark_filter=...]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/time.h>
#include <unistd.h>

#include <boost/make_shared.hpp>

#include <benchmark/benchmark.h>
#include <spdlog/async.h>
#include <spdlog/sinks/rotating_file_sink.h>
#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

#include "CBBLog.h"
#include "CRegistry.h"

namespace {

constexpr int kTotalLines = 200000;
constexpr long long kRotateSize = 524288;  // the size every logger of the system uses
const char* const kPayload = "payload of a typical diagnostic message, about 40 bytes";

std::string g_logsDir;  // set by main

using Clock = std::chrono::steady_clock;

void clearLogs() {
    std::error_code ignored;
    std::filesystem::remove_all(g_logsDir, ignored);
    std::filesystem::create_directories(g_logsDir, ignored);
}

// Runs `logLine(thread, index)` for kTotalLines lines spread over `threads` threads;
// returns the mean nanoseconds per line seen by the calling threads.
double logFromThreads(int threads, const std::function<void(int, int)>& logLine) {
    const int perThread = kTotalLines / threads;
    std::vector<double> nsPerLine(threads);
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&, t] {
            const Clock::time_point start = Clock::now();
            for (int i = 0; i < perThread; ++i) logLine(t, i);
            const std::chrono::duration<double, std::nano> spent = Clock::now() - start;
            nsPerLine[t] = spent.count() / perThread;
        });
    }
    for (std::thread& worker : workers) worker.join();
    double sum = 0;
    for (double ns : nsPerLine) sum += ns;
    return sum / threads;
}

// Runs one timed round per iteration; `round` logs everything and returns once the
// lines are on disk, giving back the callers' mean ns per line.
void runRounds(benchmark::State& state, const std::function<double(int)>& round) {
    const int threads = static_cast<int>(state.range(0));
    double callerNs = 0;
    for (auto _ : state) {
        clearLogs();
        const Clock::time_point start = Clock::now();
        callerNs += round(threads);
        state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    }
    state.SetItemsProcessed(state.iterations() * (kTotalLines / threads) * threads);
    state.counters["caller_ns"] = callerNs / static_cast<double>(state.iterations());
}

void BM_CBBLog(benchmark::State& state) {
    runRounds(state, [](int threads) {
        auto log = boost::make_shared<CBBLog>("bench.log", false, kRotateSize);
        log->setLogLevel(INFO);
        CBBLog::setLogger(log);
        const double ns = logFromThreads(threads, [](int t, int i) {
            CBBLog::info("bench line %d from thread %d: %s", i, t, kPayload);
        });
        CBBLog::setLogger(boost::shared_ptr<CBBLog>());
        log.reset();  // drains the queue into the file and joins the writer
        return ns;
    });
}

// spdlog's asynchronous logger: its default queue of 8192 messages with the blocking
// overflow policy (no line is dropped), one worker thread, rotation at the same size
// with one backup, a header of the same shape.
double spdlogRound(int threads, bool echoToStdout) {
    spdlog::init_thread_pool(8192, 1);
    std::vector<spdlog::sink_ptr> sinks;
    sinks.push_back(std::make_shared<spdlog::sinks::rotating_file_sink_mt>(g_logsDir + "/bench.log",
                                                                           kRotateSize, 1));
    if (echoToStdout) sinks.push_back(std::make_shared<spdlog::sinks::stdout_sink_mt>());
    auto log = std::make_shared<spdlog::async_logger>("bench", sinks.begin(), sinks.end(),
                                                      spdlog::thread_pool(),
                                                      spdlog::async_overflow_policy::block);
    log->set_pattern("%Y/%m/%d %H:%M:%S.%e [%-5!l] - %v");
    const double ns = logFromThreads(threads, [&log](int t, int i) {
        log->info("bench line {} from thread {}: {}", i, t, kPayload);
    });
    log.reset();
    spdlog::shutdown();  // the pool writes every queued message before its thread ends
    return ns;
}

void BM_SpdlogAsyncFile(benchmark::State& state) {
    runRounds(state, [](int threads) { return spdlogRound(threads, false); });
}

void BM_SpdlogAsyncFileAndStdout(benchmark::State& state) {
    runRounds(state, [](int threads) { return spdlogRound(threads, true); });
}

// The floor: each caller formats the same line and appends it with one write().
void BM_PlainWrite(benchmark::State& state) {
    runRounds(state, [](int threads) {
        const int fd = open((g_logsDir + "/bench.log").c_str(),
                            O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
        const double ns = logFromThreads(threads, [fd](int t, int i) {
            timeval now{};
            gettimeofday(&now, nullptr);
            tm fields{};
            localtime_r(&now.tv_sec, &fields);
            char line[512];
            const int length = snprintf(
                line, sizeof(line),
                "%04d/%02d/%02d %02d:%02d:%02d.%03d [%-5.5s] - bench line %d from thread %d: %s\n",
                fields.tm_year + 1900, fields.tm_mon + 1, fields.tm_mday, fields.tm_hour,
                fields.tm_min, fields.tm_sec, static_cast<int>(now.tv_usec / 1000), "INFO", i, t,
                kPayload);
            if (write(fd, line, static_cast<size_t>(length)) < 0) std::abort();
        });
        close(fd);
        return ns;
    });
}

void threadCounts(benchmark::internal::Benchmark* b) {
    b->Arg(1)->Arg(4)->ArgName("threads")->UseManualTime()->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_CBBLog)->Apply(threadCounts);
BENCHMARK(BM_SpdlogAsyncFile)->Apply(threadCounts);
BENCHMARK(BM_SpdlogAsyncFileAndStdout)->Apply(threadCounts);
BENCHMARK(BM_PlainWrite)->Apply(threadCounts);

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;

    // A settings home and logs folder of its own, removed at the end.
    std::string root = (std::filesystem::temp_directory_path() / "log_bench.XXXXXX").string();
    if (mkdtemp(root.data()) == nullptr) return 1;
    setenv("XDG_CONFIG_HOME", (root + "/config").c_str(), 1);
    g_logsDir = root + "/logs";
    CRegistry::getInstance()->WriteSettingImpl("Software\\Pellix\\Nimb", "LogsDir", g_logsDir);

    // The echo goes to /dev/null; the report to the original standard output.
    fflush(stdout);
    const int console = dup(STDOUT_FILENO);
    const int devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
    dup2(devNull, STDOUT_FILENO);
    close(devNull);
    std::ofstream report("/proc/self/fd/" + std::to_string(console));
    benchmark::ConsoleReporter reporter(benchmark::ConsoleReporter::OO_Tabular);
    reporter.SetOutputStream(&report);
    reporter.SetErrorStream(&report);
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();

    std::error_code ignored;
    std::filesystem::remove_all(root, ignored);
    return 0;
}
