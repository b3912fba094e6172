// SPDX-License-Identifier: MIT
// CollectorSeries: turns readings of the collector's counters (as GetStats names them)
// into the samples of the index's series: each counter's increase since the reading
// before, each gauge (a level such as the queue depth) as read. A process starts from
// zero as its counters do, so a restart adds what the new process counted and never
// shows as a drop; a counter read lower than before is taken as counting anew. Also
// the times of the readings: every `seconds` (a divisor of 60) on the wall clock, each
// reading's sample belonging to the minute of the interval it closes. A plain value;
// one thread at a time (the collector's main thread).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "DeviceLogIndex.h"

class CollectorSeries {
public:
    using Reading = std::vector<std::pair<std::string, std::uint64_t>>;

    // Whether GetStats's `name` is a level rather than a count.
    static bool isGauge(const std::string& name);
    // `seconds` held to 1..60 and lowered to a divisor of 60.
    static int interval(int seconds);
    // The first reading time after `nowMs` (ms since 1970 UTC) for the interval.
    static long long nextReading(long long nowMs, int seconds);
    // The minute (since 1970 UTC) a reading due at `dueMs` closes: that of the instant
    // before it.
    static long long minuteClosedBy(long long dueMs) { return (dueMs - 1) / 60000; }

    // The sample of `reading` for `minute`; remembers the reading for the next one.
    DeviceLogIndex::SeriesSample sample(long long minute, const Reading& reading);

private:
    std::map<std::string, std::uint64_t> previous_;
};
