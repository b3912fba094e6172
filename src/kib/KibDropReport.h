// SPDX-License-Identifier: MIT
// KibDropReport: what the bus client dropped from one subscription because its queue
// was full (the requester then only sees a timeout). The client keeps a running total;
// this decides when that total is worth a line in the log: the first drop at once,
// later ones at most once per interval, with the count since the last line. One per
// subscription; any thread (its own lock).
#pragma once

#include <chrono>
#include <cstdint>

#include "PMutex.h"
#include "ThreadAnnotations.h"

class KibDropReport {
public:
    using Clock = std::chrono::steady_clock;

    explicit KibDropReport(Clock::duration interval = std::chrono::seconds(10))
        : interval_(interval) {}
    KibDropReport(const KibDropReport&) = delete;
    KibDropReport& operator=(const KibDropReport&) = delete;

    // Given the client's running total, returns how many drops to log now (0: write
    // nothing). Drops held back by the interval are counted into a later line; `final`
    // ignores the interval, for the last look before the subscription ends.
    std::int64_t take(std::int64_t total, Clock::time_point now, bool final = false)
        NIMB_EXCLUDES(mutex_);

private:
    // Immutable after construction.
    const Clock::duration interval_;

    PMutex mutex_;
    std::int64_t reported_ NIMB_GUARDED_BY(mutex_) = 0;
    Clock::time_point lastLine_ NIMB_GUARDED_BY(mutex_){};
    bool logged_ NIMB_GUARDED_BY(mutex_) = false;
};
