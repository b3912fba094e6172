// SPDX-License-Identifier: MIT
#include "CollectorSeries.h"

#include <algorithm>
#include <set>

bool CollectorSeries::isGauge(const std::string& name) {
    static const std::set<std::string> gauges = {
        "queueDepth",     "queueBytes",    "connected",     "syslog.connections",
        "syslog.senders", "history.bytes", "history.files", "index.bytes"};
    return gauges.count(name) != 0;
}

int CollectorSeries::interval(int seconds) {
    int n = std::clamp(seconds, 1, 60);
    while (60 % n != 0) --n;
    return n;
}

long long CollectorSeries::nextReading(long long nowMs, int seconds) {
    const long long step = static_cast<long long>(interval(seconds)) * 1000;
    return (nowMs / step + 1) * step;
}

DeviceLogIndex::SeriesSample CollectorSeries::sample(long long minute, const Reading& reading) {
    DeviceLogIndex::SeriesSample out;
    out.minute = minute;
    for (const auto& [name, value] : reading) {
        const auto clamp = [](std::uint64_t v) {
            return static_cast<std::int64_t>(std::min<std::uint64_t>(v, INT64_MAX));
        };
        if (isGauge(name)) {
            out.gauges.emplace_back(name, clamp(value));
            continue;
        }
        std::uint64_t& before = previous_[name];
        out.increases.emplace_back(name, clamp(value >= before ? value - before : value));
        before = value;
    }
    return out;
}
