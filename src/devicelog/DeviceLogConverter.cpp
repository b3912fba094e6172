// SPDX-License-Identifier: MIT
#include "DeviceLogConverter.h"

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>

#include <boost/xpressive/xpressive_static.hpp>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

// The pattern's "digit" and "space" classes as byte tables, asked of the pattern
// library itself so that the scan below and the pattern agree on every byte.
struct ByteClasses {
    bool digit[256] = {};
    bool spaceOrDigit[256] = {};
    bool digitsAreAscii = false;  // the digits are '0' to '9' and nothing else
};

const ByteClasses kBytes = [] {
    ByteClasses classes;
    const xp::sregex digit = xp::_d;
    const xp::sregex space = xp::_s;
    for (int c = 0; c < 256; ++c) {
        const std::string one(1, static_cast<char>(c));
        classes.digit[c] = xp::regex_match(one, digit);
        classes.spaceOrDigit[c] = classes.digit[c] || xp::regex_match(one, space);
    }
    classes.digitsAreAscii = true;
    for (int c = 0; c < 256; ++c)
        classes.digitsAreAscii &= classes.digit[c] == (c >= '0' && c <= '9');
    return classes;
}();

bool isDigit(char c) { return kBytes.digit[static_cast<unsigned char>(c)]; }

bool isSpaceOrDigit(char c) { return kBytes.spaceOrDigit[static_cast<unsigned char>(c)]; }

// "dd:dd:dd" at `p` (8 bytes readable).
bool isTimeOfDay(const char* p) {
    return isDigit(p[0]) && isDigit(p[1]) && p[2] == ':' && isDigit(p[3]) && isDigit(p[4]) &&
           p[5] == ':' && isDigit(p[6]) && isDigit(p[7]);
}

int toInt(const char* p, std::size_t length) {
    if (length == 2) return (p[0] - '0') * 10 + (p[1] - '0');
    int value = 0;
    for (std::size_t i = 0; i < length; ++i) value = value * 10 + (p[i] - '0');
    return value;
}

// Where the pattern put the fields of a match, as offsets from the match's start.
struct Layout {
    std::size_t size = 0;  // bytes matched
    std::size_t offset[kMonthName + 1] = {};
    std::size_t length[kMonthName + 1] = {};
    bool matched[kMonthName + 1] = {};
    int monthOfName = 0;  // tm_mon of the month name, when the match has one
};

Layout layoutOf(const xp::smatch& match) {
    Layout layout;
    layout.size = static_cast<std::size_t>(match.length(0));
    for (int field = kYear; field <= kMonthName; ++field) {
        layout.matched[field] = match[field].matched;
        layout.offset[field] = static_cast<std::size_t>(match[field].first - match[0].first);
        layout.length[field] = static_cast<std::size_t>(match.length(field));
    }
    if (layout.matched[kMonthName])
        layout.monthOfName = kMonths.find(match[kMonthName].str())->second;
    return layout;
}

// One match of the pattern in a text: where it starts and how its fields lie.
struct Stamp {
    std::size_t start = 0;
    const Layout* layout = nullptr;  // borrowed from whoever matched

    std::size_t end() const { return start + layout->size; }
};

// The pattern's verdicts on candidate positions. The pattern tells digits apart only as
// digits, so its verdict on a candidate, and where the fields of its match lie, are the
// same for every text that differs from it only in which digits stand where. Verdicts
// are therefore kept by shape (the candidate's bytes up to the end of its time of day,
// every digit read as '0'), and the pattern is asked once per shape: a log repeats a few
// shapes over and over. A judge serves one thread.
class PatternJudge {
public:
    // True when the pattern, anchored at `start`, matches; `stamp` then holds the match,
    // its layout valid until the next call. `timeEnd` is the end of the candidate's time
    // of day: nothing of a match from `start` lies past it.
    bool matchesAt(const CStdStr& text, std::size_t start, std::size_t timeEnd, Stamp& stamp) {
        const std::size_t size = timeEnd - start;
        const char* const candidate = text.data() + start;
        stamp.start = start;
        for (std::size_t i = 0; i < kVerdicts; ++i) {
            const Verdict& verdict = verdicts_[(lastUsed_ + i) % kVerdicts];
            if (verdict.size == size && hasShape(candidate, verdict)) {
                lastUsed_ = (lastUsed_ + i) % kVerdicts;
                stamp.layout = &verdict.layout;
                return verdict.matched;
            }
        }
        const bool matched =
            xp::regex_search(text.begin() + static_cast<std::ptrdiff_t>(start), text.end(), match_,
                             kTimestamp, xp::regex_constants::match_continuous);
        if (matched) layout_ = layoutOf(match_);
        stamp.layout = &layout_;
        if (size >= 8 && size <= kMaxShape && (!matched || layout_.size == size))
            stamp.layout = &remember(candidate, size, matched);
        return matched;
    }

private:
    static constexpr std::size_t kMaxShape = 48;
    static constexpr std::size_t kVerdicts = 8;

    struct Verdict {
        std::size_t size = 0;  // of the shape; 0: unused
        char shape[kMaxShape] = {};
        std::uint64_t digitMask[kMaxShape / 8] = {};  // 0xff at each digit, by word
        std::uint64_t literal[kMaxShape / 8] = {};    // the other bytes, by word
        bool matched = false;
        Layout layout;
    };

    static char shapeOf(char c) { return isDigit(c) ? '0' : c; }

    // Shapes are compared 8 bytes at a time: the words at 0, 8, ... and the last 8 bytes
    // (shapes are at least 12 bytes long).
    static std::size_t words(std::size_t size) { return (size + 7) / 8; }
    static std::size_t wordAt(std::size_t word, std::size_t size) {
        return std::min(word * 8, size - 8);
    }
    static std::uint64_t load(const char* p) {
        std::uint64_t word = 0;
        std::memcpy(&word, p, sizeof word);
        return word;
    }

    static bool hasShape(const char* candidate, const Verdict& verdict) {
        if (!kBytes.digitsAreAscii) {
            for (std::size_t i = 0; i < verdict.size; ++i) {
                if (shapeOf(candidate[i]) != verdict.shape[i]) return false;
            }
            return true;
        }
        constexpr std::uint64_t kZeros = 0x3030303030303030u;
        constexpr std::uint64_t kHigh = 0x8080808080808080u;
        constexpr std::uint64_t kTenUp = 0x7676767676767676u;
        for (std::size_t w = 0; w < words(verdict.size); ++w) {
            const std::uint64_t bytes = load(candidate + wordAt(w, verdict.size));
            const std::uint64_t digits = verdict.digitMask[w];
            if ((bytes & ~digits) != verdict.literal[w]) return false;
            // Bytes at digit positions, minus '0': each must be below 10. A byte of 10 or
            // more sets its own top bit in one of the two terms; carries only leave a
            // byte that has failed already.
            const std::uint64_t offsets = (bytes ^ kZeros) & digits;
            if (((offsets + kTenUp) | offsets) & kHigh) return false;
        }
        return true;
    }

    const Layout& remember(const char* candidate, std::size_t size, bool matched) {
        lastUsed_ = next_;
        next_ = (next_ + 1) % kVerdicts;
        Verdict& verdict = verdicts_[lastUsed_];
        verdict.size = size;
        for (std::size_t i = 0; i < size; ++i) verdict.shape[i] = shapeOf(candidate[i]);
        char digitAt[kMaxShape];
        for (std::size_t i = 0; i < size; ++i) digitAt[i] = isDigit(candidate[i]) ? '\xff' : 0;
        for (std::size_t w = 0; w < words(size); ++w) {
            verdict.digitMask[w] = load(digitAt + wordAt(w, size));
            verdict.literal[w] = load(verdict.shape + wordAt(w, size)) & ~verdict.digitMask[w];
        }
        verdict.matched = matched;
        verdict.layout = layout_;
        return verdict.layout;
    }

    Verdict verdicts_[kVerdicts];
    std::size_t next_ = 0;      // the verdict to replace next
    std::size_t lastUsed_ = 0;  // the verdict to compare first
    xp::smatch match_;
    Layout layout_;  // of the last match the pattern was asked about
};

// The candidates of one time of day whose first ':' is at `colon` (2 bytes before it
// and 6 from it readable), tried in the order of their starts: a numeric match can
// only start at hour - 11, a month-name one only three bytes before the run of white
// space and digits that ends at the hour; the pattern, anchored there, decides. No
// match starts before `from`.
bool stampEndingAt(const CStdStr& text, std::size_t from, std::size_t colon, PatternJudge& judge,
                   Stamp& stamp) {
    const char* const base = text.data();
    const std::size_t hour = colon - 2;
    if (!isTimeOfDay(base + hour)) return false;
    if (hour >= from + 11 && base[hour - 1] == ' ' && base[hour - 4] == '/' &&
        base[hour - 7] == '/' && judge.matchesAt(text, hour - 11, hour + 8, stamp)) {
        return true;
    }
    std::size_t dayStart = hour;
    while (dayStart > from + 3 && isSpaceOrDigit(base[dayStart - 1])) --dayStart;
    return dayStart < hour && !isSpaceOrDigit(base[dayStart - 1]) &&
           judge.matchesAt(text, dayStart - 3, hour + 8, stamp);
}

// Finds the match that a pattern search from `from` would find, by looking only where
// one can be. Every match ends in a time of day "hh:mm:ss", and nothing before it in a
// match is a ':', so the scan looks for two ':' three bytes apart, 16 positions at a
// time where the processor allows. A match ending in a later time of day starts after
// this one's first ':', so candidates come in the order of their starts.
bool findStamp(const CStdStr& text, std::size_t from, PatternJudge& judge, Stamp& stamp) {
    const char* const base = text.data();
    const std::size_t size = text.size();
    // The shortest match, "Jan5hh:mm:ss", has its first ':' 6 bytes in and 6 from its end.
    std::size_t at = from + 6;
#if defined(__SSE2__)
    const __m128i colons = _mm_set1_epi8(':');
    for (; at + 19 <= size; at += 16) {
        const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(base + at));
        const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(base + at + 3));
        unsigned pairs = static_cast<unsigned>(_mm_movemask_epi8(
            _mm_and_si128(_mm_cmpeq_epi8(first, colons), _mm_cmpeq_epi8(second, colons))));
        for (; pairs != 0; pairs &= pairs - 1) {
            const std::size_t colon = at + static_cast<std::size_t>(__builtin_ctz(pairs));
            if (colon + 6 <= size && stampEndingAt(text, from, colon, judge, stamp)) return true;
        }
    }
#endif
    for (; at + 6 <= size; ++at) {
        if (base[at] == ':' && base[at + 3] == ':' && stampEndingAt(text, from, at, judge, stamp))
            return true;
    }
    return false;
}

// True when the timestamp's (month, day, hour, minute, second) lies after `now`'s.
bool isLaterInYear(const tm& t, const tm& now) {
    // Fields of up to 99 (two digits at most) compared as one number, field by field.
    auto key = [](const tm& x) {
        return ((((static_cast<long>(x.tm_mon) * 128 + x.tm_mday) * 128 + x.tm_hour) * 128 +
                 x.tm_min) *
                128) +
               x.tm_sec;
    };
    return key(t) > key(now);
}

// The broken-down UTC time of a match in `text`, its year inferred from the device's
// current date `now` when the stamp has none. False for a numeric month outside 01-12:
// such a match is not a date and stays as it is.
bool readStamp(const CStdStr& text, const Stamp& stamp, const tm& now, tm& t) {
    const char* const begin = text.data() + stamp.start;
    const Layout& layout = *stamp.layout;
    auto field = [&](int f) { return toInt(begin + layout.offset[f], layout.length[f]); };
    t = tm{};
    t.tm_sec = field(kSecond);
    t.tm_min = field(kMinute);
    t.tm_hour = field(kHour);
    t.tm_mday = field(kDay);
    if (layout.matched[kMonth]) {
        t.tm_mon = field(kMonth) - 1;
        if (t.tm_mon < 0 || t.tm_mon > 11) return false;
    } else {
        t.tm_mon = layout.monthOfName;
    }
    if (layout.matched[kYear]) {
        t.tm_year = field(kYear) - 1900;
    } else {
        t.tm_year = isLaterInYear(t, now) ? now.tm_year - 1 : now.tm_year;
    }
    return true;
}

constexpr std::size_t kStampSize = 19;  // "YYYY/MM/DD hh:mm:ss"

void putTwoDigits(char* p, int value) {
    p[0] = static_cast<char>('0' + value / 10);
    p[1] = static_cast<char>('0' + value % 10);
}

// Appends `local` as printf's "%04d/%02d/%02d %02d:%02d:%02d" would write it.
void appendLocal(const tm& local, CStdStr& out) {
    const int year = local.tm_year + 1900;
    const int fields[] = {local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                          local.tm_sec};
    bool plain = year >= 0 && year <= 9999;
    for (int field : fields) plain = plain && field >= 0 && field <= 99;
    if (!plain) {
        out.AppendFormat("%04d/%02d/%02d %02d:%02d:%02d", year, fields[0], fields[1], fields[2],
                         fields[3], fields[4]);
        return;
    }
    char text[kStampSize] = {0, 0, 0, 0, '/', 0, 0, '/', 0, 0, ' ', 0, 0, ':', 0, 0, ':', 0, 0};
    putTwoDigits(text, year / 100);
    putTwoDigits(text + 2, year % 100);
    for (int i = 0; i < 5; ++i) putTwoDigits(text + 5 + 3 * i, fields[i]);
    out.append(text, kStampSize);
}

// Appends the server's local time of a second, for stamps that come in runs: two
// localtime_r calls per new local minute instead of one per stamp. From a stamp on, the
// rest of its minute is kept when the minute's last second breaks down to that same
// minute at ":59", the seconds between having advanced one by one; so a minute holding
// a change of the zone's offset or a leap second is never kept, and its seconds go to
// the C library one by one.
class LocalMinute {
public:
    void append(time_t seconds, CStdStr& out) {
        if (kept_ && seconds >= from_ && seconds <= last_) {
            out.append(text_, kStampSize);
            putTwoDigits(&out[out.size() - 2], static_cast<int>(seconds - last_ + 59));
            return;
        }
        tm local{};
        localtime_r(&seconds, &local);
        const std::size_t at = out.size();
        appendLocal(local, out);
        if (out.size() - at != kStampSize || local.tm_sec > 59) return;
        const time_t last = seconds + (59 - local.tm_sec);
        tm end{};
        localtime_r(&last, &end);
        if (end.tm_sec == 59 && end.tm_min == local.tm_min && end.tm_hour == local.tm_hour &&
            end.tm_mday == local.tm_mday && end.tm_mon == local.tm_mon &&
            end.tm_year == local.tm_year) {
            kept_ = true;
            from_ = seconds;
            last_ = last;
            out.copy(text_, kStampSize, at);
        }
    }

private:
    bool kept_ = false;
    time_t from_ = 0;  // the seconds kept: [from_, last_], last_ at ":59"
    time_t last_ = 0;
    char text_[kStampSize] = {};  // their stamp (the seconds are written over)
};

// DeviceLogConverter::utcSeconds for stamps that come in runs: the calendar rule is
// worked out once per month; day, hour, minute and second add linearly, as in the rule.
class MonthStart {
public:
    long utcSeconds(const tm& t) {
        if (t.tm_year != year_ || t.tm_mon != month_) {
            tm first{};
            first.tm_year = year_ = t.tm_year;
            first.tm_mon = month_ = t.tm_mon;
            first.tm_mday = 1;
            seconds_ = DeviceLogConverter::utcSeconds(first);
        }
        return seconds_ + (t.tm_mday - 1) * 86400L + t.tm_hour * 3600L + t.tm_min * 60L + t.tm_sec;
    }

private:
    int year_ = 0;
    int month_ = -1;  // none yet
    long seconds_ = 0;
};

tm deviceNow(long deviceTime) {
    const time_t seconds = static_cast<time_t>(deviceTime);
    tm now{};
    gmtime_r(&seconds, &now);
    return now;
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
    long moved = 0;
    tm local{};
    if (__builtin_sub_overflow(utcSeconds(t), deviceTime, &moved) ||
        __builtin_add_overflow(moved, serverTime, &moved)) {
        return CStdStr();
    }
    const time_t when = static_cast<time_t>(moved);
    if (localtime_r(&when, &local) == nullptr) return CStdStr();  // beyond the calendar
    CStdStr out;
    appendLocal(local, out);
    return out;
}

CStdStr DeviceLogConverter::convertLog(const CStdStr& content, long deviceTime, long serverTime) {
    // The verdicts depend on the pattern alone, so each thread keeps its judge.
    thread_local PatternJudge judge;
    Stamp stamp;
    if (!findStamp(content, 0, judge, stamp)) return content;
    const tm now = deviceNow(deviceTime);
    MonthStart month;
    LocalMinute minute;
    CStdStr out;
    out.reserve(content.size() + content.size() / 8);
    std::size_t copiedUpTo = 0;
    do {
        tm t{};
        if (readStamp(content, stamp, now, t)) {
            out.append(content.data() + copiedUpTo, stamp.start - copiedUpTo);
            minute.append(static_cast<time_t>(month.utcSeconds(t) - deviceTime + serverTime), out);
            copiedUpTo = stamp.end();
        }
    } while (findStamp(content, stamp.end(), judge, stamp));
    out.append(content.data() + copiedUpTo, content.size() - copiedUpTo);
    return out;
}

CStdStr DeviceLogConverter::convertLogByPattern(const CStdStr& content, long deviceTime,
                                                long serverTime) {
    xp::sregex_iterator it(content.begin(), content.end(), kTimestamp), end;
    if (it == end) return content;
    const tm now = deviceNow(deviceTime);
    CStdStr out;
    auto copiedUpTo = content.begin();
    for (; it != end; ++it) {
        tm t{};
        const Layout layout = layoutOf(*it);
        const Stamp stamp{static_cast<std::size_t>((*it)[0].first - content.begin()), &layout};
        if (!readStamp(content, stamp, now, t)) continue;
        out.append(copiedUpTo, (*it)[0].first);
        out += convertDate(t, deviceTime, serverTime);
        copiedUpTo = (*it)[0].second;
    }
    out.append(copiedUpTo, content.end());
    return out;
}
