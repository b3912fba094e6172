// SPDX-License-Identifier: MIT
#include "CollectorStats.h"

#include <cstring>

CollectorStats& CollectorStats::global() {
    static CollectorStats stats;
    return stats;
}

const char* CollectorStats::kindName(ErrorKind kind) {
    switch (kind) {
        case ErrorKind::Invalid:
            return "invalid";
        case ErrorKind::Busy:
            return "busy";
        case ErrorKind::Write:
            return "write";
        case ErrorKind::Unknown:
            return "unknown";
        default:
            return "other";
    }
}

void CollectorStats::countError(ErrorKind kind) {
    const int index = static_cast<int>(kind);
    if (index < 0 || index >= static_cast<int>(ErrorKind::Count_)) return;
    errors_[index].fetch_add(1, std::memory_order_relaxed);
}

std::uint64_t CollectorStats::errors(ErrorKind kind) const {
    const int index = static_cast<int>(kind);
    if (index < 0 || index >= static_cast<int>(ErrorKind::Count_)) return 0;
    return errors_[index].load(std::memory_order_relaxed);
}

void CollectorStats::countWritten(const char* text, std::size_t bytes) {
    std::uint64_t lines = 0;
    for (const char* p = text;
         (p = static_cast<const char*>(std::memchr(p, '\n', bytes - (p - text)))) != nullptr; ++p) {
        ++lines;
    }
    lines_.fetch_add(lines, std::memory_order_relaxed);
    bytes_.fetch_add(bytes, std::memory_order_relaxed);
}
