// SPDX-License-Identifier: MIT
#include "KibLog.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {

std::mutex g_loggerMutex;
// Written by KibSatellite::setLogger; read by every diagnostic.
boost::shared_ptr<CBBLog> g_logger;

void emit(const char* level, const char* format, va_list args) {
    char text[1024];
    std::vsnprintf(text, sizeof text, format, args);
    std::fprintf(stderr, "kib [%s] %s\n", level, text);
}

}  // namespace

void KibLog::setLogger(const boost::shared_ptr<CBBLog>& logger) {
    const std::lock_guard<std::mutex> lock(g_loggerMutex);
    g_logger = logger;
}

void KibLog::error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    emit("ERROR", format, args);
    va_end(args);
}

void KibLog::info(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_end(args);
    (void)format;
}

void KibLog::debug(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_end(args);
    (void)format;
}
