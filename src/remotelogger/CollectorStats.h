// SPDX-License-Identifier: MIT
// CollectorStats: the collector's counters (requests served, lines and bytes written,
// failed requests by kind, whether the bus connection is up, the syslog listeners'
// counters), answered by the "GetStats" service. One process-wide instance of lock-free
// counters: any thread counts, any thread reads; a reading is a set of individually
// consistent values, not a snapshot taken under one lock.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "SyslogCounters.h"

class CollectorStats {
public:
    // Why a request was not served. Each kind is one counter.
    enum class ErrorKind : int {
        Invalid = 0,  // the request did not pass the checks (KibInvalidParameterException)
        Busy,         // too much was waiting to be written; the device retries
        Write,        // the text could not be written to its file
        Unknown,      // text for a log that was never announced
        Other,        // any other exception out of a handler
        Count_
    };

    CollectorStats() = default;
    CollectorStats(const CollectorStats&) = delete;
    CollectorStats& operator=(const CollectorStats&) = delete;

    // The process's counters. Any thread.
    static CollectorStats& global();

    // Name of a kind as it appears in "GetStats" ("invalid", "busy", "write", "unknown",
    // "other").
    static const char* kindName(ErrorKind kind);

    void countRequest() { requests_.fetch_add(1, std::memory_order_relaxed); }
    void countError(ErrorKind kind);
    // Text handed to a device log's file: its newlines count as lines.
    void countWritten(const char* text, std::size_t bytes);
    void setConnected(bool connected) { connected_.store(connected, std::memory_order_relaxed); }

    std::uint64_t requests() const { return requests_.load(std::memory_order_relaxed); }
    std::uint64_t errors(ErrorKind kind) const;
    std::uint64_t linesWritten() const { return lines_.load(std::memory_order_relaxed); }
    std::uint64_t bytesWritten() const { return bytes_.load(std::memory_order_relaxed); }
    bool connected() const { return connected_.load(std::memory_order_relaxed); }
    // Where the syslog listeners count (they live shorter than the process); all zero
    // while they are off.
    SyslogCounters& syslog() { return syslog_; }
    const SyslogCounters& syslog() const { return syslog_; }

private:
    std::atomic<std::uint64_t> requests_{0};
    std::atomic<std::uint64_t> lines_{0};
    std::atomic<std::uint64_t> bytes_{0};
    std::array<std::atomic<std::uint64_t>, static_cast<int>(ErrorKind::Count_)> errors_{};
    std::atomic<bool> connected_{false};
    SyslogCounters syslog_;
};
