// SPDX-License-Identifier: MIT
// Throughput of the device-log timestamp conversion on a realistic 50 MB log: syslog
// lines with a month-name stamp, numeric-stamped lines, and the same text with no
// timestamps at all (the scan-only cost). Each corpus is converted by convertLog and
// by the plain pattern loop (convertLogByPattern) in the same run; a summary prints
// both rates, their ratio and the goals (1 GB/s with stamps, 1.5 GB/s without).
// Rates are per CPU second of the converting thread. For a profile, run it under
// valgrind --tool=callgrind --toggle-collect='DeviceLogConverter::convertLog*' with
// --benchmark_filter='BM_ConvertLog/kind:0'.
#include <cstdlib>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "DeviceLogConverter.h"

namespace {

constexpr size_t kTargetBytes = 50u << 20;
const char* const kKinds[] = {"syslog", "numeric", "none"};

CStdStr makeLog(int kind) {
    static const char* kMessages[] = {
        "kernel: eth0: link up, 100Mbps, full-duplex, lpa 0x45E1",
        "dhcpcd[412]: eth0: leased 192.168.1.23 for 86400 seconds",
        "mediad[977]: scanning /media/usb0/Music (1432 entries)",
        "upnp[231]: M-SEARCH from 192.168.1.10:1900 ST: urn:schemas-upnp-org:device:MediaServer:1",
    };
    CStdStr log;
    log.reserve(kTargetBytes + 256);
    for (int i = 0; log.size() < kTargetBytes; ++i) {
        const char* message = kMessages[i % 4];
        const int s = i % 60, m = i / 60 % 60, h = i / 3600 % 24;
        switch (kind) {
            case 0:
                log.AppendFormat("Nov %2d %02d:%02d:%02d nas %s\n", 1 + i / 86400 % 28, h, m, s,
                                 message);
                break;
            case 1:
                log.AppendFormat("2026/11/%02d %02d:%02d:%02d [INFO ] %s\n", 1 + i / 86400 % 28, h,
                                 m, s, message);
                break;
            default:
                log.AppendFormat("nas %s (seq %d)\n", message, i);
        }
    }
    return log;
}

const CStdStr& corpus(int kind) {
    static std::map<int, CStdStr> logs;
    auto found = logs.find(kind);
    if (found == logs.end()) found = logs.emplace(kind, makeLog(kind)).first;
    return found->second;
}

using Converter = CStdStr (*)(const CStdStr&, long, long);

// Converts the corpus of `state.range(0)`: whole, or in pieces of `state.range(1)` bytes
// (as the collector gets it, one request at a time: 480 bytes are 4 lines of 120) when
// that is not 0.
void convertLoop(benchmark::State& state, Converter convert) {
    setenv("TZ", "UTC", 1);
    tzset();
    const CStdStr& log = corpus(static_cast<int>(state.range(0)));
    const size_t piece = state.range(1) > 0 ? static_cast<size_t>(state.range(1)) : log.size();
    std::vector<CStdStr> pieces;
    for (size_t at = 0; at < log.size(); at += piece) pieces.push_back(log.substr(at, piece));
    const long now = 1795000000;
    size_t outBytes = 0;
    for (auto _ : state) {
        outBytes = 0;
        for (const CStdStr& text : pieces) {
            CStdStr out = convert(text, now, now + 37);
            outBytes += out.size();
            benchmark::DoNotOptimize(out.data());
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * log.size()));
    state.counters["out_MB"] = static_cast<double>(outBytes) / 1e6;
}

// What any conversion costs at least: the text copied into a new string.
CStdStr copyOnly(const CStdStr& content, long, long) { return content; }

void BM_ConvertLog(benchmark::State& state) { convertLoop(state, &DeviceLogConverter::convertLog); }

void BM_ConvertLogByPattern(benchmark::State& state) {
    convertLoop(state, &DeviceLogConverter::convertLogByPattern);
}

void BM_CopyOnly(benchmark::State& state) { convertLoop(state, &copyOnly); }

void kinds(benchmark::internal::Benchmark* b) {
    b->ArgsProduct({{0, 1, 2}, {0, 4096, 480}})->ArgNames({"kind", "piece"});
    b->Unit(benchmark::kMillisecond);
}

BENCHMARK(BM_ConvertLog)->Apply(kinds);
BENCHMARK(BM_ConvertLogByPattern)->Apply(kinds);
BENCHMARK(BM_CopyOnly)->Apply(kinds);

// Keeps each run's rate for the summary.
class SummaryReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            const auto rate = run.counters.find("bytes_per_second");
            if (run.run_type == Run::RT_Iteration && rate != run.counters.end())
                rates[run.benchmark_name()] = rate->second.value / 1e6;
        }
    }

    std::map<std::string, double> rates;  // MB/s by benchmark name
};

// One row per corpus and piece size: convertLog's rate, the plain pattern loop's and the
// copy's (each "-" when filtered out), convertLog's ratio to each, and the goal.
void printSummary(const std::map<std::string, double>& rates) {
    std::printf("\n%-8s %-6s %10s %10s %10s %8s %8s %6s\n", "corpus", "piece", "convertLog",
                "pattern", "copy", "/pattern", "/copy", "goal");
    for (int kind = 0; kind < 3; ++kind) {
        for (const char* piece : {"0", "4096", "480"}) {
            const std::string arg = "/kind:" + std::to_string(kind) + "/piece:" + piece;
            auto rate = [&](const char* name) {
                const auto found = rates.find(name + arg);
                return found == rates.end() ? 0.0 : found->second;
            };
            const double fast = rate("BM_ConvertLog");
            if (fast == 0) continue;
            const double plain = rate("BM_ConvertLogByPattern");
            const double copy = rate("BM_CopyOnly");
            auto column = [](double value, const char* format) {
                if (value > 0)
                    std::printf(format, value);
                else
                    std::printf(" %10s", "-");
            };
            std::printf("%-8s %-6s %10.0f", kKinds[kind], *piece == '0' ? "whole" : piece, fast);
            column(plain, " %10.0f");
            column(copy, " %10.0f");
            column(plain > 0 ? fast / plain : 0, " %9.2fx");
            column(copy > 0 ? fast / copy : 0, " %9.2fx");
            const double goal = kind == 2 ? 1500 : 1000;
            std::printf(" %4.0f %s\n", goal, fast >= goal ? "met" : "NOT met");
        }
    }
    std::printf("(MB/s: 10^6 bytes of input per CPU second)\n");
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    SummaryReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    printSummary(reporter.rates);
    return 0;
}
