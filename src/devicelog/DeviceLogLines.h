// SPDX-License-Identifier: MIT
// DeviceLogLines: what the index needs to know of a text's lines: how many, the earliest
// and latest time they state, and which severities they hold. A line's time is the stamp
// it starts with ("YYYY/MM/DD hh:mm:ss" as the collector writes converted stamps, in the
// server's local time; "Mmm dd hh:mm:ss" as syslog writes them, local time, the year
// nearest the fallback; ISO 8601 with or without a zone), else the fallback time (when
// the text was received). Pure functions, any thread; nothing allocates.
#pragma once

#include <cstdint>
#include <string_view>

namespace DeviceLogLines {

struct Summary {
    std::uint32_t lines = 0;
    long long firstTime = 0;  // seconds since 1970 UTC; 0 when the text has no line
    long long lastTime = 0;
    std::uint16_t severities = 0;  // bit 1 << level (DeviceLogSeverity::Level)
};

// The time a line states, or `fallback` (both seconds since 1970 UTC).
long long lineTime(std::string_view line, long long fallback);

// Summarises every line of `text` (a last line without newline counts); lines without
// a stamp take `fallback`. With `severities` not 0, it is taken as the lines' severities
// instead of detecting them (syslog knows each line's priority).
Summary summarize(std::string_view text, long long fallback, std::uint16_t severities = 0);

}  // namespace DeviceLogLines
