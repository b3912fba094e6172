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

}  // namespace

long DeviceLogConverter::utcSeconds(const tm& t) {
    static const long kDaysBeforeMonth[] = {0, 31, 59, 90, 120, 151, 181, 212, 243, 273, 304, 334};
    const long y = t.tm_year;
    const long m = t.tm_mon;
    long leapDays = (y + 300) / 400 + y / 4 - 17 - y / 100;
    const long fullYear = 1900 + y;
    const bool leapYear = (fullYear % 4 == 0 && fullYear % 100 != 0) || fullYear % 400 == 0;
    if (leapYear && m < 2) --leapDays;
    return (y - 70) * 31536000L + (kDaysBeforeMonth[m] + t.tm_mday - 1 + leapDays) * 86400L +
           t.tm_hour * 3600L + t.tm_min * 60L + t.tm_sec;
}

CStdStr DeviceLogConverter::convertDate(const tm& t, long deviceTime, long serverTime) {
    const time_t shifted = static_cast<time_t>(utcSeconds(t) - deviceTime + serverTime);
    tm local{};
    localtime_r(&shifted, &local);
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
