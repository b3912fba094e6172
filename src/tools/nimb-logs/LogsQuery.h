// SPDX-License-Identifier: MIT
// LogsQuery: nimb-logs's answer to a question about the collected lines. The index says
// which pieces may hold matching lines; each piece's bytes are read from where its
// generation is now (the log file or its ".back", opened right after the query so that
// a rotation does not move them; a history generation, compressed or not) and cut into
// lines; a line is kept when its own time is in the range and its severity passes. A
// line's time is the stamp it starts with; a line without one takes the time of the line
// before it in the piece (the piece's first receive time for its first line). Lines
// come out sorted by time (lines of one time in the order of the pieces and within
// them), streaming: a line is printed once no piece still to be read can hold an earlier
// one, so memory holds only the lines of overlapping pieces. One thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <iosfwd>
#include <string>

#include "DeviceLogSeverity.h"

namespace LogsQuery {

enum class Format {
    Line,  // "<file>\t<line>"
    Full,  // "<local time>\t<level>\t<device>\t<file>\t<line>"
};

struct Request {
    std::string logsDir;
    long long since = 0;  // line times at or after (s since 1970 UTC); 0: any
    long long until = 0;  // line times before; 0: any
    bool hasLevel = false;
    DeviceLogSeverity::Level level = DeviceLogSeverity::Level::Unknown;  // this or more severe
    std::string device;     // device id, display name, MAC or file name prefix
    std::string file;       // exactly this log file
    std::size_t limit = 0;  // at most this many lines (the earliest); 0: all
    bool headers = false;   // the announces' header lines too
    Format format = Format::Line;
};

// The levels `level` and those more severe: bits 1 << Emergency .. 1 << level.
std::uint16_t levelsFrom(DeviceLogSeverity::Level level);

// Prints the lines that answer `request` on `out`, problems on `err` (prefixed
// "nimb-logs: "). A control character in a line other than a tab is written as "\xHH",
// so a device's text cannot steer the terminal; blank lines are left out. Returns the
// exit status: 0 answered (a generation that retention removed meanwhile is noted and
// skipped), 1 when the index is missing or unreadable or a piece could not be read.
int run(const Request& request, std::ostream& out, std::ostream& err);

}  // namespace LogsQuery
