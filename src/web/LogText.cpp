// SPDX-License-Identifier: MIT
#include "LogText.h"

#include <cstring>
#include <ctime>

namespace LogText {

namespace {

constexpr std::size_t kStampLength = 19;  // yyyy/MM/dd hh:mm:ss

bool digits(std::string_view text, std::size_t at, std::size_t count, int& value) {
    value = 0;
    for (std::size_t i = at; i < at + count; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + (text[i] - '0');
    }
    return true;
}

// Checks the shape and ranges; fills the broken-down time.
bool splitStamp(std::string_view text, tm& t) {
    if (text.size() < kStampLength || text[4] != '/' || text[7] != '/' || text[10] != ' ' ||
        text[13] != ':' || text[16] != ':') {
        return false;
    }
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (!digits(text, 0, 4, year) || !digits(text, 5, 2, month) || !digits(text, 8, 2, day) ||
        !digits(text, 11, 2, hour) || !digits(text, 14, 2, minute) ||
        !digits(text, 17, 2, second)) {
        return false;
    }
    if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 || minute > 59 || second > 60)
        return false;
    t = tm{};
    t.tm_year = year - 1900;
    t.tm_mon = month - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = minute;
    t.tm_sec = second;
    t.tm_isdst = -1;
    return true;
}

}  // namespace

bool parseLocalTime(std::string_view text, std::int64_t& seconds) {
    tm t{};
    if (!splitStamp(text, t)) return false;
    const time_t value = std::mktime(&t);
    if (value == static_cast<time_t>(-1)) return false;
    seconds = value;
    return true;
}

bool StampReader::read(std::string_view line, std::int64_t& seconds) {
    tm t{};
    if (!splitStamp(line, t)) return false;
    if (!cached_ || std::memcmp(hourKey_, line.data(), sizeof hourKey_) != 0) {
        tm hour = t;
        hour.tm_min = 0;
        hour.tm_sec = 0;
        const time_t start = std::mktime(&hour);
        if (start == static_cast<time_t>(-1)) return false;
        std::memcpy(hourKey_, line.data(), sizeof hourKey_);
        hourStart_ = start;
        cached_ = true;
    }
    seconds = hourStart_ + t.tm_min * 60 + t.tm_sec;
    return true;
}

bool parseHeader(std::string_view line, Header& header) {
    constexpr std::string_view kOpen = "===== ";
    constexpr std::string_view kClose = " =====";
    if (line.size() < kOpen.size() + kClose.size() || line.substr(0, kOpen.size()) != kOpen ||
        line.substr(line.size() - kClose.size()) != kClose) {
        return false;
    }
    const std::string_view body =
        line.substr(kOpen.size(), line.size() - kOpen.size() - kClose.size());
    const std::size_t times = body.rfind(" === ");
    if (times == std::string_view::npos) return false;
    const std::string_view names = body.substr(0, times);
    const std::string_view clocks = body.substr(times + 5);
    const std::size_t tie = clocks.find(" <-> ");
    const std::size_t dash = names.rfind(" - ");
    if (tie == std::string_view::npos || dash == std::string_view::npos) return false;
    header.displayName = std::string(names.substr(0, dash));
    header.satellite = std::string(names.substr(dash + 3));
    header.deviceTime = std::string(clocks.substr(0, tie));
    header.serverTime = std::string(clocks.substr(tie + 5));
    return true;
}

}  // namespace LogText
