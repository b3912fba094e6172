// SPDX-License-Identifier: MIT
// What the index's per-line work costs on the writer thread: DeviceLogLines::summarize
// (line times and severities) of 34-line texts, and its two parts alone, over three
// corpora: the lines the end-to-end benchmark sends (converted stamp, no label), a mix of
// the label formats devices use, and syslog lines. Reported per line. For a profile, run
// it under valgrind --tool=callgrind with --benchmark_filter='BM_Summarize/kind:0'.
#include <cstdio>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "DeviceLogLines.h"
#include "DeviceLogSeverity.h"

namespace {

constexpr int kLinesPerText = 34;
constexpr int kTexts = 256;
constexpr long long kReceived = 1795860000;  // 2026-11-25, the stamps' day

// One line of `kind` (0: bench, 1: labels, 2: syslog), `number` picking its variant.
std::string makeLine(int kind, int number) {
    static const char* const kLabelled[] = {
        "2026/11/25 10:%02d:%02d.123 [ERROR] - cannot open share",
        "2026-11-25 10:%02d:%02d,123 WARN [main] c.e.Server - slow",
        "2026-11-25T10:%02d:%02dZ level=info msg=\"scan done\" items=1432",
        "{\"time\":\"2026-11-25T10:%02d:%02dZ\",\"level\":\"debug\",\"msg\":\"tick\"}",
        "11-25 10:%02d:%02d.123  1234  5678 I ActivityManager: Start proc",
        "2026/11/25 10:%02d:%02d scan done: 0 errors",
    };
    char line[200];
    const int m = number / 60 % 60, s = number % 60;
    if (kind == 0) {
        std::snprintf(line, sizeof line, "2026/11/22 10:%02d:%02d bench-d3 log7.log line %06d ", m,
                      s, number);
        std::string text(line);
        text.resize(119, 'x');
        return text;
    }
    if (kind == 1) {
        std::snprintf(line, sizeof line, kLabelled[number % 6], m, s);
        return line;
    }
    std::snprintf(line, sizeof line,
                  "Nov 25 10:%02d:%02d nas mediad[977]: scanning /media/usb0 (%d)", m, s, number);
    return line;
}

const std::vector<std::string>& texts(int kind) {
    static std::vector<std::string> corpora[3];
    std::vector<std::string>& corpus = corpora[kind];
    if (corpus.empty()) {
        for (int t = 0; t < kTexts; ++t) {
            std::string text;
            for (int l = 0; l < kLinesPerText; ++l)
                text += makeLine(kind, t * kLinesPerText + l) + "\n";
            corpus.push_back(std::move(text));
        }
    }
    return corpus;
}

void BM_Summarize(benchmark::State& state) {
    const std::vector<std::string>& corpus = texts(static_cast<int>(state.range(0)));
    std::size_t next = 0;
    for (auto _ : state) {
        const DeviceLogLines::Summary summary =
            DeviceLogLines::summarize(corpus[next++ % corpus.size()], kReceived);
        benchmark::DoNotOptimize(summary);
    }
    state.SetItemsProcessed(state.iterations() * kLinesPerText);
}

void BM_OfLine(benchmark::State& state) {
    const std::vector<std::string>& corpus = texts(static_cast<int>(state.range(0)));
    std::vector<std::string_view> lines;
    for (const std::string& text : corpus) {
        for (std::size_t at = 0; at < text.size();) {
            const std::size_t end = text.find('\n', at);
            lines.emplace_back(text.data() + at, end - at);
            at = end + 1;
        }
    }
    std::size_t next = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(DeviceLogSeverity::ofLine(lines[next++ % lines.size()]));
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_LineTime(benchmark::State& state) {
    const std::vector<std::string>& corpus = texts(static_cast<int>(state.range(0)));
    std::size_t next = 0;
    for (auto _ : state) {
        const std::string& text = corpus[next++ % corpus.size()];
        long long sum = 0;
        for (std::size_t at = 0; at < text.size();) {
            const std::size_t end = text.find('\n', at);
            sum +=
                DeviceLogLines::lineTime(std::string_view(text.data() + at, end - at), kReceived);
            at = end + 1;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(state.iterations() * kLinesPerText);
}

BENCHMARK(BM_Summarize)->ArgName("kind")->DenseRange(0, 2);
BENCHMARK(BM_OfLine)->ArgName("kind")->DenseRange(0, 2);
BENCHMARK(BM_LineTime)->ArgName("kind")->DenseRange(0, 2);

}  // namespace

BENCHMARK_MAIN();
