// SPDX-License-Identifier: MIT
#include "KibLog.h"

#include <chrono>
#include <cstdarg>
#include <cstdio>

#include <boost/weak_ptr.hpp>

#include "CBBLog.h"
#include "PMutex.h"

namespace {

PMutex g_loggerMutex;
// Written by KibSatellite::setLogger; read by every diagnostic. Held weakly, like the
// process's default logger, so the library never keeps a logger alive.
boost::weak_ptr<CBBLog> g_logger NIMB_GUARDED_BY(g_loggerMutex);

enum class Level { Error, Info, Debug };

void emit(Level level, const char* format, va_list args) {
    boost::shared_ptr<CBBLog> logger;
    {
        const PMutexLocker lock(g_loggerMutex);
        logger = g_logger.lock();
    }
    char text[1024];
    std::vsnprintf(text, sizeof text, format, args);
    if (logger) {
        switch (level) {
            case Level::Error:
                CBBLog::error(logger, "%s", text);
                break;
            case Level::Info:
                CBBLog::info(logger, "%s", text);
                break;
            case Level::Debug:
                CBBLog::debug(logger, "%s", text);
                break;
        }
        return;
    }
    switch (level) {
        case Level::Error:
            CBBLog::error("%s", text);
            break;
        case Level::Info:
            CBBLog::info("%s", text);
            break;
        case Level::Debug:
            CBBLog::debug("%s", text);
            break;
    }
}

}  // namespace

void KibLog::setLogger(const boost::shared_ptr<CBBLog>& logger) {
    const PMutexLocker lock(g_loggerMutex);
    g_logger = logger;
}

void KibLog::error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    emit(Level::Error, format, args);
    va_end(args);
}

void KibLog::error(KibLogLimit& limit, const char* format, ...) {
    unsigned held = 0;
    if (!limit.pass(held)) return;
    char text[1024];
    va_list args;
    va_start(args, format);
    std::vsnprintf(text, sizeof text, format, args);
    va_end(args);
    if (held == 0) {
        error("%s", text);
    } else {
        error("%s (%u more like it held back)", text, held);
    }
}

bool KibLogLimit::pass(unsigned& held) {
    const std::int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                                 std::chrono::steady_clock::now().time_since_epoch())
                                 .count();
    std::int64_t next = nextMs_.load();
    // Exactly one thread wins the slot that opens at `next`; the others count as held.
    if (now < next || !nextMs_.compare_exchange_strong(next, now + intervalMs_)) {
        held_.fetch_add(1);
        return false;
    }
    held = held_.exchange(0);
    return true;
}

void KibLog::info(const char* format, ...) {
    va_list args;
    va_start(args, format);
    emit(Level::Info, format, args);
    va_end(args);
}

void KibLog::debug(const char* format, ...) {
    va_list args;
    va_start(args, format);
    emit(Level::Debug, format, args);
    va_end(args);
}
