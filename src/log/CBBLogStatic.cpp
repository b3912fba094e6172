// SPDX-License-Identifier: MIT
// CBBLog class side: the static message functions, to the default logger (DefaultLogger)
// or to a given one. Each takes a strong reference to its logger for the length of the
// call, lets the message through when the logger's level is unset or enabled (the final
// test, after the level has been read, is made again inside _AddLog), and does nothing
// when there is no logger.
#include <type_traits>

#include "CBBLog.h"
#include "DefaultLogger.h"
#include "VaListEnd.h"

namespace {

template <class T>
bool isNullVaList(T args) {
    if constexpr (std::is_pointer_v<T>) {
        return args == nullptr;
    } else {
        return false;
    }
}

bool isEnabled(LOGLEVEL messageLevel) {
    const boost::shared_ptr<CBBLog> log = DefaultLogger::get();
    if (!log) return false;
    const LOGLEVEL current = log->getLogLevel();
    return current == CBBLog::kLevelUnset || current >= messageLevel;
}

void dispatch(const boost::shared_ptr<CBBLog>& log, LOGLEVEL messageLevel, const char* format,
              va_list args) {
    if (!log) return;
    const LOGLEVEL current = log->getLogLevel();
    if (current != CBBLog::kLevelUnset && current < messageLevel) return;
    log->_AddLog(format, args, messageLevel);
}

void dispatch(const boost::shared_ptr<CBBLog>& log, LOGLEVEL messageLevel,
              const boost::format& format) {
    if (!log) return;
    const LOGLEVEL current = log->getLogLevel();
    if (current != CBBLog::kLevelUnset && current < messageLevel) return;
    log->_AddLog(format, messageLevel);
}

void forward(const boost::shared_ptr<CBBLog>& log, LOGLEVEL messageLevel, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    dispatch(log, messageLevel, format, args);
}

}  // namespace

void CBBLog::setLogger(boost::shared_ptr<CBBLog> logger) { DefaultLogger::set(logger); }

boost::shared_ptr<CBBLog> CBBLog::getLogger() { return DefaultLogger::get(); }

bool CBBLog::isWarnEnabled() { return isEnabled(WARN); }
bool CBBLog::isInfoEnabled() { return isEnabled(INFO); }
bool CBBLog::isDebugEnabled() { return isEnabled(DEBUG); }

// ---- printf-style, to the default logger ----

void CBBLog::fatal(const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    dispatch(getLogger(), FATAL, format, args);
}

void CBBLog::error(const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    dispatch(getLogger(), ERROR, format, args);
}

void CBBLog::warn(const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    dispatch(getLogger(), WARN, format, args);
}

void CBBLog::info(const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    dispatch(getLogger(), INFO, format, args);
}

void CBBLog::debug(const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    dispatch(getLogger(), DEBUG, format, args);
}

void CBBLog::debug(const char* format, va_list args) {
    // Where va_list is a pointer, a call such as debug("retries: %d", 0) chooses this
    // overload, the literal 0 being a null va_list; it is formatted as the single zero
    // argument it was meant to be instead of being read through a null pointer.
    if (isNullVaList(args)) {
        forward(getLogger(), DEBUG, format, 0L);
        return;
    }
    // The caller owns `args`; a copy keeps it usable after this call.
    va_list copy;
    va_copy(copy, args);
    VaListEnd end(copy);
    dispatch(getLogger(), DEBUG, format, copy);
}

// ---- boost::format, to the default logger ----

void CBBLog::fatal(const boost::format& format) { dispatch(getLogger(), FATAL, format); }
void CBBLog::error(const boost::format& format) { dispatch(getLogger(), ERROR, format); }
void CBBLog::warn(const boost::format& format) { dispatch(getLogger(), WARN, format); }
void CBBLog::info(const boost::format& format) { dispatch(getLogger(), INFO, format); }
void CBBLog::debug(const boost::format& format) { dispatch(getLogger(), DEBUG, format); }

// ---- printf-style, to a given logger ----

void CBBLog::fatal(boost::shared_ptr<CBBLog> log, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    dispatch(log, FATAL, format, args);
}

void CBBLog::error(boost::shared_ptr<CBBLog> log, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    dispatch(log, ERROR, format, args);
}

void CBBLog::warn(boost::shared_ptr<CBBLog> log, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    dispatch(log, WARN, format, args);
}

void CBBLog::info(boost::shared_ptr<CBBLog> log, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    dispatch(log, INFO, format, args);
}

void CBBLog::debug(boost::shared_ptr<CBBLog> log, const char* format, ...) {
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    dispatch(log, DEBUG, format, args);
}

// ---- Instance shortcuts: the stored level alone decides ----

void CBBLog::_fatal(const char* format, ...) {
    if (getLogLevel() < FATAL) return;
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    _AddLog(format, args, FATAL);
}

void CBBLog::_error(const char* format, ...) {
    if (getLogLevel() < ERROR) return;
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    _AddLog(format, args, ERROR);
}

void CBBLog::_warn(const char* format, ...) {
    if (getLogLevel() < WARN) return;
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    _AddLog(format, args, WARN);
}

void CBBLog::_info(const char* format, ...) {
    if (getLogLevel() < INFO) return;
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    _AddLog(format, args, INFO);
}

void CBBLog::_debug(const char* format, ...) {
    if (getLogLevel() < DEBUG) return;
    va_list args;
    va_start(args, format);
    VaListEnd end(args);
    _AddLog(format, args, DEBUG);
}
