// SPDX-License-Identifier: MIT
// SyslogThrottledLog: an error entry in the collector's own log that a remote sender can
// trigger, written at most once per interval; the next entry says how many were left
// out meanwhile. One per kind of entry; used by one thread (the listener thread).
#pragma once

#include <ctime>
#include <string>

class SyslogThrottledLog {
public:
    explicit SyslogThrottledLog(int intervalSeconds = 10) : interval_(intervalSeconds) {}

    // Logs `text` at error level unless an entry was logged less than the interval ago.
    void error(const std::string& text);
    // Entries left out since the last one written.
    long suppressed() const { return suppressed_; }

private:
    int interval_ = 10;
    time_t last_ = 0;
    bool logged_ = false;
    long suppressed_ = 0;
};
