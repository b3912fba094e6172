// SPDX-License-Identifier: MIT
#include "DeviceLogLines.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "DeviceLogConverter.h"
#include "DeviceLogSeverity.h"

namespace {

bool digits(std::string_view text, std::size_t at, std::size_t count, int& value) {
    if (at + count > text.size()) return false;
    value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        const char c = text[i];
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    return true;
}

// A stamp's fields, numbered as tm numbers them (years since 1900, months 0-11).
struct Fields {
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
};

// DeviceLogConverter::utcSeconds of the fields. The calendar rule is worked out once per
// day, kept per thread for the last day of each of four consecutive years (stamps come in
// runs of one day, and a syslog stamp asks for one day in three years); hours, minutes
// and seconds add linearly, as in the rule. The helpers below take and return plain
// numbers: handed over in memory (a tm, a Fields by value), the numbers just written
// stalled the reads that compare them.
long long utcSeconds(int year, int month, int day, int secondOfDay) {
    struct Day {
        int year = -1, month = -1, day = -1;  // none yet
        long long seconds = 0;
    };
    thread_local Day days[4];
    Day& cached = days[year & 3];
    if (cached.year != year || cached.month != month || cached.day != day) {
        tm midnight{};
        midnight.tm_year = year;
        midnight.tm_mon = month;
        midnight.tm_mday = day;
        cached = {year, month, day, DeviceLogConverter::utcSeconds(midnight)};
    }
    return cached.seconds + secondOfDay;
}

// UTC seconds of a local wall-clock reading whose fields give `asUtc` as UTC (the zone's
// offset taken at that moment; kept per hour and thread, so a text costs one zone look-up
// per hour it spans).
long long fromLocal(long long asUtc) {
    thread_local long long cachedHour = -1;
    thread_local long long cachedOffset = 0;
    const long long hour = asUtc / 3600;
    if (hour != cachedHour) {
        const time_t probe = static_cast<time_t>(asUtc);
        tm local{};
        localtime_r(&probe, &local);
        cachedOffset = local.tm_gmtoff;
        cachedHour = hour;
    }
    return asUtc - cachedOffset;
}

bool validFields(const Fields& f) {
    return f.month >= 0 && f.month < 12 && f.day >= 1 && f.day <= 31 && f.hour < 24 &&
           f.minute < 60 && f.second <= 60;
}

// The number two digits at `p` give, -1 when either is not a digit.
int twoDigits(const char* p) {
    const unsigned tens = static_cast<unsigned char>(p[0] - '0');
    const unsigned ones = static_cast<unsigned char>(p[1] - '0');
    return tens < 10 && ones < 10 ? static_cast<int>(tens * 10 + ones) : -1;
}

// "YYYY/MM/DD hh:mm:ss" or "YYYY-MM-DD[T ]hh:mm:ss[.fff][Z|+hh:mm|+hhmm]".
bool numericStamp(std::string_view line, long long& seconds) {
    if (line.size() < 19) return false;
    const char* const p = line.data();
    const char dateSep = p[4];
    if ((dateSep != '/' && dateSep != '-') || p[7] != dateSep) return false;
    if (p[10] != ' ' && p[10] != 'T') return false;
    if (p[13] != ':' || p[16] != ':') return false;
    const int century = twoDigits(p), year = twoDigits(p + 2), month = twoDigits(p + 5);
    Fields t;
    t.day = twoDigits(p + 8);
    t.hour = twoDigits(p + 11);
    t.minute = twoDigits(p + 14);
    t.second = twoDigits(p + 17);
    if ((century | year | month | t.day | t.hour | t.minute | t.second) < 0) return false;
    t.year = century * 100 + year - 1900;
    t.month = month - 1;
    if (!validFields(t)) return false;
    const long long asUtc =
        utcSeconds(t.year, t.month, t.day, t.hour * 3600 + t.minute * 60 + t.second);
    std::size_t at = 19;
    if (at < line.size() && (line[at] == '.' || line[at] == ',')) {
        ++at;
        while (at < line.size() && line[at] >= '0' && line[at] <= '9') ++at;
    }
    if (dateSep == '-' && at < line.size()) {
        int hours = 0, minutes = 0;
        if (line[at] == 'Z') {
            seconds = asUtc;
            return true;
        }
        if ((line[at] == '+' || line[at] == '-') && digits(line, at + 1, 2, hours)) {
            const std::size_t m = at + 3 < line.size() && line[at + 3] == ':' ? at + 4 : at + 3;
            if (digits(line, m, 2, minutes)) {
                const long long zone = (hours * 60LL + minutes) * 60 * (line[at] == '-' ? -1 : 1);
                seconds = asUtc - zone;
                return true;
            }
        }
    }
    seconds = fromLocal(asUtc);
    return true;
}

// "Mmm dd hh:mm:ss" (day padded with a blank or a zero), the year nearest `reference`.
bool syslogStamp(std::string_view line, long long reference, long long& seconds) {
    static const char* const kMonths = "JanFebMarAprMayJunJulAugSepOctNovDec";
    if (line.size() < 15 || line[3] != ' ' || line[6] != ' ' || line[9] != ':' || line[12] != ':')
        return false;
    const char* found = nullptr;
    for (int m = 0; m < 12 && found == nullptr; ++m) {
        if (std::memcmp(kMonths + 3 * m, line.data(), 3) == 0) found = kMonths + 3 * m;
    }
    if (found == nullptr) return false;
    Fields t;
    t.month = static_cast<int>((found - kMonths) / 3);
    const char d0 = line[4] == ' ' ? '0' : line[4];
    if (d0 < '0' || d0 > '3' || line[5] < '0' || line[5] > '9') return false;
    t.day = (d0 - '0') * 10 + (line[5] - '0');
    if (!digits(line, 7, 2, t.hour) || !digits(line, 10, 2, t.minute) ||
        !digits(line, 13, 2, t.second) || !validFields(t))
        return false;
    thread_local long long cachedDay = -1;
    thread_local int cachedYear = 0;
    if (reference / 86400 != cachedDay) {
        const time_t probe = static_cast<time_t>(reference);
        tm now{};
        localtime_r(&probe, &now);
        cachedYear = now.tm_year;
        cachedDay = reference / 86400;
    }
    const int secondOfDay = t.hour * 3600 + t.minute * 60 + t.second;
    long long best = 0;
    for (int year = cachedYear - 1; year <= cachedYear + 1; ++year) {
        const long long candidate = fromLocal(utcSeconds(year, t.month, t.day, secondOfDay));
        if (year == cachedYear - 1 ||
            std::llabs(candidate - reference) < std::llabs(best - reference))
            best = candidate;
    }
    seconds = best;
    return true;
}

}  // namespace

namespace DeviceLogLines {

long long lineTime(std::string_view line, long long fallback) {
    long long seconds = 0;
    if (numericStamp(line, seconds) || syslogStamp(line, fallback, seconds)) return seconds;
    return fallback;
}

Summary summarize(std::string_view text, long long fallback, std::uint16_t severities) {
    Summary summary;
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t end = std::min(text.find('\n', at), text.size());
        const std::string_view line = text.substr(at, end - at);
        at = end + 1;
        if (line.empty()) continue;  // the blank line before a header, a blank line
        const long long time = lineTime(line, fallback);
        summary.firstTime = summary.lines == 0 ? time : std::min(summary.firstTime, time);
        summary.lastTime = summary.lines == 0 ? time : std::max(summary.lastTime, time);
        ++summary.lines;
        if (severities == 0) {
            summary.severities |= static_cast<std::uint16_t>(
                1u << static_cast<unsigned>(DeviceLogSeverity::ofLine(line)));
        }
    }
    if (severities != 0 && summary.lines != 0) summary.severities = severities;
    return summary;
}

}  // namespace DeviceLogLines
