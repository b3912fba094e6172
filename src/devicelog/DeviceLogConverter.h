// SPDX-License-Identifier: MIT
// DeviceLogConverter: rewrites the timestamps found in a device's log text from the
// device's clock to the server's. Timestamps are read as UTC, shifted by the clock
// difference and written again in the server's local time as "YYYY/MM/DD hh:mm:ss".
// Stateless: the compiled pattern and the month table are built once and only read,
// so any thread may call it at any time.
#pragma once

#include <ctime>

#include "StdString.h"

class DeviceLogConverter {
public:
    // Returns `content` with every recognised timestamp rewritten; the text around the
    // timestamps is kept byte for byte. `deviceTime` is the device's current time and
    // `serverTime` the server's, both in seconds since 1970 UTC. Timestamps without a
    // year take the device's current year, or the year before when they lie after the
    // device's current moment. A numeric timestamp with a month outside 01-12 is left
    // as it is.
    // Finds candidates with a byte scan and lets the pattern confirm each one, so the
    // result is that of convertLogByPattern, at several times its speed.
    static CStdStr convertLog(const CStdStr& content, long deviceTime, long serverTime);

    // The same conversion by the plain pattern search, match after match, and one
    // C-library time conversion per timestamp: the reference that convertLog is
    // checked and measured against.
    static CStdStr convertLogByPattern(const CStdStr& content, long deviceTime, long serverTime);

    // Converts one broken-down time (read as UTC; out-of-range fields carry over as in
    // utcSeconds) into server time: t - deviceTime + serverTime, formatted in the
    // server's local time zone. Empty when the sum overflows or the result lies beyond
    // what the calendar functions can show.
    static CStdStr convertDate(const tm& t, long deviceTime, long serverTime);

    // Seconds since 1970 of a broken-down UTC time, by the calendar rule alone (no C
    // library call). Every field may lie outside its range, negative ones included:
    // it carries into the next unit (month 12 is January of the next year, month -1
    // December of the year before, day 0 the last day of the month before), as
    // timegm() does.
    static long utcSeconds(const tm& t);
};
