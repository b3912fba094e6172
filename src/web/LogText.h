// SPDX-License-Identifier: MIT
// LogText: reading the collector's log text: the server-time stamp that starts a line
// ("yyyy/MM/dd hh:mm:ss", local time) and the header line written at each
// announcement ("===== <name> - <satellite> === <device time> <-> <server time> =====").
// Plain functions and a small per-caller cache; one thread per StampReader.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace LogText {

// The pieces of a header line.
struct Header {
    std::string displayName;
    std::string satellite;
    std::string deviceTime;  // as written: yyyy/MM/dd hh:mm:ss (UTC)
    std::string serverTime;  // as written: yyyy/MM/dd hh:mm:ss (server local time)
};

// Whether `line` (without its newline) is a header line; fills `header` when it is.
bool parseHeader(std::string_view line, Header& header);

// Reads the stamp at the start of a line into seconds since 1970, remembering the last
// hour it converted so that consecutive lines cost no time-zone look-up.
class StampReader {
public:
    // False when `line` does not start with a valid stamp.
    bool read(std::string_view line, std::int64_t& seconds);

private:
    char hourKey_[13] = {};
    std::int64_t hourStart_ = 0;
    bool cached_ = false;
};

// "yyyy/MM/dd hh:mm:ss" (local time) into seconds since 1970; false when malformed.
bool parseLocalTime(std::string_view text, std::int64_t& seconds);

}  // namespace LogText
