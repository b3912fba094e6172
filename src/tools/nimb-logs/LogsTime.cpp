// SPDX-License-Identifier: MIT
#include "LogsTime.h"

#include <cstdio>
#include <ctime>

namespace {

// Reads exactly `count` digits at `at` into `value`, moving `at` past them.
bool digits(const std::string& text, std::size_t& at, int count, int& value) {
    if (at + static_cast<std::size_t>(count) > text.size()) return false;
    value = 0;
    for (int i = 0; i < count; ++i) {
        const char c = text[at + static_cast<std::size_t>(i)];
        if (c < '0' || c > '9') return false;
        value = value * 10 + (c - '0');
    }
    at += static_cast<std::size_t>(count);
    return true;
}

bool relative(const std::string& text, long long now, long long& time) {
    if (text.size() < 3 || text[0] != '-') return false;
    long long amount = 0;
    std::size_t at = 1;
    for (; at + 1 < text.size(); ++at) {
        const char c = text[at];
        if (c < '0' || c > '9' || amount > 100000000) return false;
        amount = amount * 10 + (c - '0');
    }
    if (at != text.size() - 1) return false;
    switch (text[at]) {
        case 's':
            time = now - amount;
            return true;
        case 'm':
            time = now - amount * 60;
            return true;
        case 'h':
            time = now - amount * 3600;
            return true;
        case 'd':
            time = now - amount * 86400;
            return true;
        default:
            return false;
    }
}

// "Z", "+hh", "+hh:mm" or "+hhmm" from `at` to the end: the zone's offset east of UTC.
bool zone(const std::string& text, std::size_t at, long long& offset) {
    if (text.compare(at, std::string::npos, "Z") == 0) {
        offset = 0;
        return true;
    }
    if (at >= text.size() || (text[at] != '+' && text[at] != '-')) return false;
    const int sign = text[at] == '-' ? -1 : 1;
    ++at;
    int hours = 0;
    int minutes = 0;
    if (!digits(text, at, 2, hours)) return false;
    if (at < text.size() && text[at] == ':') ++at;
    if (at < text.size() && !digits(text, at, 2, minutes)) return false;
    if (at != text.size() || hours > 23 || minutes > 59) return false;
    offset = sign * (hours * 3600LL + minutes * 60LL);
    return true;
}

bool absolute(const std::string& text, long long& time) {
    std::size_t at = 0;
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!digits(text, at, 4, year) || at >= text.size()) return false;
    const char separator = text[at++];
    if (separator != '-' && separator != '/') return false;
    if (!digits(text, at, 2, month) || at >= text.size() || text[at++] != separator ||
        !digits(text, at, 2, day)) {
        return false;
    }
    if (at < text.size() && (text[at] == ' ' || text[at] == 'T')) {
        ++at;
        if (!digits(text, at, 2, hour) || at >= text.size() || text[at++] != ':' ||
            !digits(text, at, 2, minute)) {
            return false;
        }
        if (at < text.size() && text[at] == ':') {
            ++at;
            if (!digits(text, at, 2, second)) return false;
            if (at < text.size() && (text[at] == '.' || text[at] == ',')) {
                ++at;
                const std::size_t start = at;
                while (at < text.size() && text[at] >= '0' && text[at] <= '9') ++at;
                if (at == start) return false;
            }
        }
    }
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60) {
        return false;
    }
    tm parts{};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    // The day must exist: timegm normalises 02-30 to 03-02.
    tm check = parts;
    const time_t utc = timegm(&check);
    if (check.tm_mday != day || check.tm_mon != month - 1) return false;
    if (at == text.size()) {
        parts.tm_isdst = -1;
        const time_t localTime = mktime(&parts);
        if (localTime == static_cast<time_t>(-1)) return false;
        time = localTime;
        return true;
    }
    long long offset = 0;
    if (!zone(text, at, offset)) return false;
    time = static_cast<long long>(utc) - offset;
    return true;
}

}  // namespace

namespace LogsTime {

bool parse(const std::string& text, long long now, long long& time) {
    if (text == "now") {
        time = now;
        return true;
    }
    return relative(text, now, time) || absolute(text, time);
}

std::string local(long long time) {
    const time_t value = static_cast<time_t>(time);
    tm parts{};
    localtime_r(&value, &parts);
    char text[80];
    std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d", parts.tm_year + 1900,
                  parts.tm_mon + 1, parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    return text;
}

}  // namespace LogsTime
