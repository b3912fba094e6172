// SPDX-License-Identifier: MIT
// StatsClient: reads the collector's counters with its "GetStats" bus service. Holds
// one bus connection, made on first use and again after a failure (at most once per
// few seconds, so a missing bus costs a request little). Thread-safe: fetch() may be
// called from any worker thread; calls are serialised.
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include <QString>

#include "NimbBusSettings.h"
#include "PMutex.h"

class KibSatellite;

class StatsClient {
public:
    struct Stats {
        bool reachable = false;  // the collector answered
        QString error;           // why not, when it did not
        std::map<std::string, std::int64_t> values;
        // The collector's recent refusals for identity (GetStats "refusals"), oldest
        // first; the texts are the devices', to be escaped where shown.
        struct Refusal {
            std::int64_t timeMs = 0;
            std::string account, source, request, reason;
        };
        std::vector<Refusal> refusals;
    };

    explicit StatsClient(NimbBusSettings bus);
    StatsClient(const StatsClient&) = delete;
    StatsClient& operator=(const StatsClient&) = delete;
    ~StatsClient();

    // Calls RemoteLogger.GetStats; blocks up to about a second. Any thread.
    Stats fetch();

private:
    bool connectLocked() NIMB_REQUIRES(mutex_);

    const NimbBusSettings bus_;
    PMutex mutex_;
    std::unique_ptr<KibSatellite> satellite_ NIMB_GUARDED_BY(mutex_);
    std::chrono::steady_clock::time_point nextAttempt_ NIMB_GUARDED_BY(mutex_){};
};
