// SPDX-License-Identifier: MIT
#include "DeviceLogConverter.h"

#include <cstdio>
#include <map>
#include <string>

#include <boost/xpressive/xpressive_static.hpp>

namespace xp = boost::xpressive;

namespace {

// Capture fields shared by both forms of a timestamp.
enum Field { kYear = 1, kMonth, kDay, kHour, kMinute, kSecond, kMonthName };

// The month-name table, as tm_mon values.
const std::map<std::string, int> kMonths = {
    {"Jan", 0}, {"Feb", 1}, {"Mar", 2}, {"Apr", 3}, {"May", 4},  {"Jun", 5},
    {"Jul", 6}, {"Aug", 7}, {"Sep", 8}, {"Oct", 9}, {"Nov", 10}, {"Dec", 11},
};

// "YYYY/MM/DD hh:mm:ss", or "Mon D hh:mm:ss" with any white space (none included)
// around the one- or two-digit day. Built once, at start-up.
const xp::sregex kTimestamp = [] {
    using xp::_d;
    using xp::_s;
    using xp::repeat;
    const xp::mark_tag year(kYear), month(kMonth), day(kDay), hour(kHour), minute(kMinute),
        second(kSecond), monthName(kMonthName);
    // One full expression: proto sub-expressions must not be kept in variables, as
    // they refer to temporaries.
    return xp::sregex(((year = repeat<4>(_d)) >> '/' >> (month = repeat<2>(_d)) >> '/' >>
                       (day = repeat<2>(_d)) >> ' ' >> (hour = repeat<2>(_d)) >> ':' >>
                       (minute = repeat<2>(_d)) >> ':' >> (second = repeat<2>(_d))) |
                      ((monthName = (xp::as_xpr("Jan") | "Feb" | "Mar" | "Apr" | "May" | "Jun" |
                                     "Jul" | "Aug" | "Sep" | "Oct" | "Nov" | "Dec")) >>
                       *_s >> (day = repeat<1, 2>(_d)) >> *_s >> (hour = repeat<2>(_d)) >> ':' >>
                       (minute = repeat<2>(_d)) >> ':' >> (second = repeat<2>(_d))));
}();

int toInt(const xp::ssub_match& field) {
    int value = 0;
    for (char c : field.str()) value = value * 10 + (c - '0');
    return value;
}

// True when the timestamp's (month, day, hour, minute, second) lies after `now`'s.
bool isLaterInYear(const tm& t, const tm& now) {
    const int a[] = {t.tm_mon, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec};
    const int b[] = {now.tm_mon, now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec};
    for (int i = 0; i < 5; ++i) {
        if (a[i] != b[i]) return a[i] > b[i];
    }
    return false;
}

// Division rounding toward minus infinity, so that carries work for negative fields.
long floorDiv(long a, long b) {
    const long q = a / b;
    return (a % b != 0 && (a < 0) != (b < 0)) ? q - 1 : q;
}

bool isLeapYear(long year) { return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0; }

// Leap years in [1, year), counted the proleptic Gregorian way (negative for year < 1).
long leapYearsBefore(long year) {
    const long y = year - 1;
    return floorDiv(y, 4) - floorDiv(y, 100) + floorDiv(y, 400);
}

}  // namespace

long DeviceLogConverter::utcSeconds(const tm& t) {
    static const long kDaysBeforeMonth[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    // A month outside 0-11 carries into the year, as every other field carries into the
    // next unit; the table is only ever indexed with 0-11.
    const long yearCarry = floorDiv(t.tm_mon, 12);
    const long month = t.tm_mon - 12 * yearCarry;
    const long year = 1900L + t.tm_year + yearCarry;
    const long days = 365 * (year - 1970) + leapYearsBefore(year) - leapYearsBefore(1970) +
                      kDaysBeforeMonth[month] + (month >= 2 && isLeapYear(year) ? 1 : 0) +
                      t.tm_mday - 1;
    return days * 86400L + t.tm_hour * 3600L + t.tm_min * 60L + t.tm_sec;
}

CStdStr DeviceLogConverter::convertDate(const tm& t, long deviceTime, long serverTime) {
    long shifted = 0;
    tm local{};
    if (__builtin_sub_overflow(utcSeconds(t), deviceTime, &shifted) ||
        __builtin_add_overflow(shifted, serverTime, &shifted)) {
        return CStdStr();
    }
    const time_t when = static_cast<time_t>(shifted);
    if (localtime_r(&when, &local) == nullptr) return CStdStr();  // beyond the calendar
    CStdStr out;
    out.Format("%04d/%02d/%02d %02d:%02d:%02d", local.tm_year + 1900, local.tm_mon + 1,
               local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return out;
}

CStdStr DeviceLogConverter::convertLog(const CStdStr& content, long deviceTime, long serverTime) {
    const time_t deviceNow = static_cast<time_t>(deviceTime);
    tm now{};
    gmtime_r(&deviceNow, &now);

    CStdStr out;
    auto copiedUpTo = content.begin();
    xp::sregex_iterator it(content.begin(), content.end(), kTimestamp), end;
    if (it == end) return content;
    out.reserve(content.size() + content.size() / 8);
    for (; it != end; ++it) {
        const xp::smatch& match = *it;
        tm t{};
        t.tm_sec = toInt(match[kSecond]);
        t.tm_min = toInt(match[kMinute]);
        t.tm_hour = toInt(match[kHour]);
        t.tm_mday = toInt(match[kDay]);
        if (match[kMonth].matched) {
            t.tm_mon = toInt(match[kMonth]) - 1;
            if (t.tm_mon < 0 || t.tm_mon > 11) continue;  // not a date: left as it is
        } else {
            t.tm_mon = kMonths.find(match[kMonthName].str())->second;
        }
        if (match[kYear].matched) {
            t.tm_year = toInt(match[kYear]) - 1900;
        } else {
            t.tm_year = isLaterInYear(t, now) ? now.tm_year - 1 : now.tm_year;
        }
        out.append(copiedUpTo, match[0].first);
        out += convertDate(t, deviceTime, serverTime);
        copiedUpTo = match[0].second;
    }
    out.append(copiedUpTo, content.end());
    return out;
}
