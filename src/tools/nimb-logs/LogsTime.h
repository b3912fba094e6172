// SPDX-License-Identifier: MIT
// LogsTime: the times nimb-logs reads on its command line and writes in its output.
// Accepted: "now"; a span back from now ("-30s", "-15m", "-2h", "-7d"); a date
// "YYYY-MM-DD" or "YYYY/MM/DD", optionally followed (after a blank or "T") by
// "hh:mm[:ss[.fraction]]" and a zone ("Z", "+hh", "+hh:mm", "+hhmm"). A date without a
// zone is the local time (a date alone: its midnight). Pure functions; they read the
// process's time zone (TZ).
#pragma once

#include <string>

namespace LogsTime {

// Seconds since 1970 UTC that `text` names, `now` being the present; false, `time`
// untouched, for any other text or a date that does not exist (2026-02-30).
bool parse(const std::string& text, long long now, long long& time);

// "YYYY-MM-DD hh:mm:ss" in local time.
std::string local(long long time);

}  // namespace LogsTime
