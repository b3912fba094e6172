// SPDX-License-Identifier: MIT
// KibLog: the bus library's own diagnostics. Messages go to the logger given to
// KibSatellite::setLogger, else to the process's default logger. Any thread.
#pragma once

#include <atomic>
#include <cstdint>

#include <boost/shared_ptr.hpp>

class CBBLog;

// Lets one line of a kind through per interval, so that a peer that keeps sending the
// same bad message cannot flood the log; the next line that passes says how many were
// held back. One per kind of line, shared by every thread (lock-free).
class KibLogLimit {
public:
    explicit KibLogLimit(std::int64_t intervalMs = 10000) : intervalMs_(intervalMs) {}
    KibLogLimit(const KibLogLimit&) = delete;
    KibLogLimit& operator=(const KibLogLimit&) = delete;

    // True when a line may be written now; `held` is then the number of lines held back
    // since the last one written. False counts the line as held back.
    bool pass(unsigned& held);

private:
    const std::int64_t intervalMs_;
    std::atomic<std::int64_t> nextMs_{0};
    std::atomic<unsigned> held_{0};
};

class KibLog {
public:
    static void setLogger(const boost::shared_ptr<CBBLog>& logger);

    static void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
    // An ERROR line unless `limit` holds it back; followed by
    // " (N more like it held back)" when earlier ones were.
    static void error(KibLogLimit& limit, const char* format, ...)
        __attribute__((format(printf, 2, 3)));
    static void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
};
