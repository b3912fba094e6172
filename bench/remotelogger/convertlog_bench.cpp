// SPDX-License-Identifier: MIT
// Throughput of the device-log timestamp conversion on a realistic 50 MB log: syslog
// lines with a month-name stamp, numeric-stamped lines, and the same text with no
// timestamps at all (the scan-only cost).
#include <cstdlib>
#include <ctime>

#include <benchmark/benchmark.h>

#include "DeviceLogConverter.h"

namespace {

constexpr size_t kTargetBytes = 50u << 20;

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

void BM_ConvertLog(benchmark::State& state) {
    setenv("TZ", "UTC", 1);
    tzset();
    const CStdStr log = makeLog(static_cast<int>(state.range(0)));
    const long now = 1795000000;
    size_t outBytes = 0;
    for (auto _ : state) {
        CStdStr out = DeviceLogConverter::convertLog(log, now, now + 37);
        outBytes = out.size();
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * log.size()));
    state.counters["out_MB"] = static_cast<double>(outBytes) / 1e6;
}

}  // namespace

BENCHMARK(BM_ConvertLog)
    ->Arg(0)
    ->Arg(1)
    ->Arg(2)
    ->ArgNames({"kind(0=syslog,1=numeric,2=none)"})
    ->Unit(benchmark::kMillisecond)
    ->MinTime(2.0);

BENCHMARK_MAIN();
