// SPDX-License-Identifier: MIT
// LogLineFormat: how a logger's lines look. The levels, the line header (local time,
// level label, optional process id, and for FATAL lines the logger's short name), the
// message text cut to a fixed buffer, and the errors.log line about a failed rotation.
// Immutable after construction; any thread. The functions that write into a caller's
// buffer allocate nothing, so the crash path may use them.
#pragma once

#include <cstdarg>
#include <cstddef>

#include "StdString.h"

// Message levels; a smaller number is more severe. A logger writes a message when the
// message's level is not greater than its own level.
enum LOGLEVEL : int { FATAL = 0, ERROR = 1, WARN = 2, INFO = 3, DEBUG = 4 };

class LogLineFormat {
public:
    // Size of the buffers the message text and the line header are formatted into; a
    // longer text is cut to kBufferSize - 1 bytes (a line is never split).
    static constexpr size_t kBufferSize = 20480;

    // `logName` is the logger's file name; `withPid` puts `pid` into every header.
    LogLineFormat(const CStdStr& logName, bool withPid, unsigned pid);

    // The file name without folder and extension ("NimbRemoteLogger.log" gives
    // "NimbRemoteLogger"); names the logger in errors.log and in reports.
    const CStdStr& shortName() const { return shortName_; }
    // The header of a line at `level` from the wall clock; FATAL headers are followed by
    // the short name and " - ".
    CStdStr lineHeader(LOGLEVEL level) const;
    // The header of a line at `level` (without the FATAL short name) into `out`; returns
    // its length. Allocates nothing.
    size_t header(char* out, size_t size, LOGLEVEL level) const;
    // The ERROR line for errors.log about a rotation of `path` that failed with `error`,
    // into `out`; returns its length. Allocates nothing.
    size_t rotationReport(char* out, size_t size, const CStdStr& path, int error) const;

    // printf into `buffer`; returns the length kept (the text is cut to fit).
    static size_t formatText(char* buffer, size_t size, const char* format, va_list args);
    // Local time now as "YYYY/MM/DD hh:mm:ss.mmm".
    static CStdStr timeString();

private:
    CStdStr shortName_;
    bool withPid_;
    unsigned pid_;
};
