// SPDX-License-Identifier: MIT
// KibLog: the bus library's own diagnostics. Messages go to the logger given to
// KibSatellite::setLogger, else to the process's default logger. Any thread.
#pragma once

#include <boost/shared_ptr.hpp>

class CBBLog;

class KibLog {
public:
    static void setLogger(const boost::shared_ptr<CBBLog>& logger);

    static void error(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void info(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static void debug(const char* format, ...) __attribute__((format(printf, 1, 2)));
};
