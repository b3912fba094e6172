// SPDX-License-Identifier: MIT
// The console's file work on a full logs folder: 256 device logs of 1 MiB each.
// Substring and regular-expression search of every log (the page's "every log"
// search), against a bare memmem over the same bytes already in memory (the ceiling),
// and the device listing with its activity counts, cold and warm (cached).
// Bytes per second are of log text scanned.
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <string.h>

#include <benchmark/benchmark.h>

#include "LogCatalog.h"
#include "LogSearch.h"

namespace {

namespace fs = std::filesystem;
constexpr int kLogs = 256;
constexpr std::size_t kLogBytes = 1u << 20;

struct Folder {
    fs::path path;
    std::vector<std::string> names;
    std::vector<std::string> texts;

    Folder() {
        path = fs::temp_directory_path() / ("web_bench_" + std::to_string(::getpid()));
        fs::create_directories(path);
        const std::time_t start = std::time(nullptr) - 86400;
        for (int i = 0; i < kLogs; ++i) {
            char name[64];
            std::snprintf(name, sizeof name, "puck-%d0011223344%02x-system.log", i, i % 256);
            std::string text;
            text.reserve(kLogBytes + 200);
            for (int n = 0; text.size() < kLogBytes; ++n) {
                const std::time_t when = start + n;
                char stamp[32];
                std::strftime(stamp, sizeof stamp, "%Y/%m/%d %H:%M:%S", std::localtime(&when));
                text += stamp;
                text += n % 4 == 0 ? " mediad[977]: scanning /media/usb0/Music (1432 entries)\n"
                                   : " upnp[231]: M-SEARCH from 192.168.1.10:1900 ST: ssdp:all\n";
            }
            std::ofstream(path / name, std::ios::binary) << text;
            names.push_back(name);
            texts.push_back(std::move(text));
        }
    }
    ~Folder() { fs::remove_all(path); }
};

Folder& folder() {
    static Folder f;
    return f;
}

void BM_MemmemInMemory(benchmark::State& state) {
    Folder& f = folder();
    for (auto _ : state) {
        std::size_t found = 0;
        for (const std::string& text : f.texts) {
            found += memmem(text.data(), text.size(), "needle", 6) != nullptr;
        }
        benchmark::DoNotOptimize(found);
    }
    state.SetBytesProcessed(state.iterations() * kLogs * static_cast<int64_t>(kLogBytes));
}

void search(benchmark::State& state, const char* pattern, bool regex) {
    Folder& f = folder();
    LogSearch::Query query;
    query.pattern = pattern;
    query.regex = regex;
    query.files = f.names;
    for (auto _ : state) {
        const LogSearch::Result result = LogSearch::run(f.path.string(), query);
        if (result.timedOut || result.filesScanned != kLogs)
            state.SkipWithError("incomplete search");
        benchmark::DoNotOptimize(result.hitCount);
    }
    state.SetBytesProcessed(state.iterations() * kLogs * static_cast<int64_t>(kLogBytes));
}

void BM_SearchSubstring(benchmark::State& state) { search(state, "needle", false); }
void BM_SearchRegex(benchmark::State& state) { search(state, "needle [0-9]+", true); }

void BM_DevicesCold(benchmark::State& state) {
    Folder& f = folder();
    for (auto _ : state) {
        LogCatalog catalog(f.path.string());
        benchmark::DoNotOptimize(catalog.devices(std::time(nullptr)).size());
    }
    state.SetBytesProcessed(state.iterations() * kLogs * static_cast<int64_t>(kLogBytes));
}

void BM_DevicesWarm(benchmark::State& state) {
    Folder& f = folder();
    LogCatalog catalog(f.path.string());
    catalog.devices(std::time(nullptr));
    for (auto _ : state) benchmark::DoNotOptimize(catalog.devices(std::time(nullptr)).size());
}

BENCHMARK(BM_MemmemInMemory)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SearchSubstring)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SearchRegex)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DevicesCold)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DevicesWarm)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
