// SPDX-License-Identifier: MIT
#include "CrashLog.h"

#include <cstring>
#include <ctime>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CBBLog.h"
#include "LogFileIo.h"

namespace {

constexpr const char* kErrorLogName = "errors.log";

// Runs in: crash context. Copies `text` to the end of `buffer` without passing
// `capacity - 1`; the result stays NUL-terminated.
void appendTo(char* buffer, std::size_t capacity, std::size_t& length, const char* text) {
    if (text == nullptr) return;
    for (; *text != '\0' && length + 1 < capacity; ++text) buffer[length++] = *text;
    buffer[length] = '\0';
}

// Runs in: crash context. Writes `value` in decimal with at least `width` digits.
void appendNumber(char* buffer, std::size_t capacity, std::size_t& length, long long value,
                  int width) {
    char digits[24];
    int count = 0;
    const bool negative = value < 0;
    unsigned long long rest = negative ? 0ULL - static_cast<unsigned long long>(value)
                                       : static_cast<unsigned long long>(value);
    do {
        digits[count++] = static_cast<char>('0' + rest % 10);
        rest /= 10;
    } while (rest != 0 && count < 23);
    while (count < width && count < 23) digits[count++] = '0';
    if (negative) digits[count++] = '-';
    char text[25];
    for (int i = 0; i < count; ++i) text[i] = digits[count - 1 - i];
    text[count] = '\0';
    appendTo(buffer, capacity, length, text);
}

struct CivilDate {
    long long year;
    int month;  // 1-12
    int day;    // 1-31
};

// The proleptic Gregorian date of a day number counted from 1970-01-01, by arithmetic
// alone (the C library's conversions take the time zone lock).
CivilDate civilFromDays(long long days) {
    days += 719468;  // days from 0000-03-01 to 1970-01-01
    const long long era = (days >= 0 ? days : days - 146096) / 146097;
    const long long dayOfEra = days - era * 146097;
    const long long yearOfEra =
        (dayOfEra - dayOfEra / 1460 + dayOfEra / 36524 - dayOfEra / 146096) / 365;
    const long long dayOfYear = dayOfEra - (365 * yearOfEra + yearOfEra / 4 - yearOfEra / 100);
    const long long monthIndex = (5 * dayOfYear + 2) / 153;  // March is 0
    const int day = static_cast<int>(dayOfYear - (153 * monthIndex + 2) / 5 + 1);
    const int month = static_cast<int>(monthIndex < 10 ? monthIndex + 3 : monthIndex - 9);
    return {yearOfEra + era * 400 + (month <= 2 ? 1 : 0), month, day};
}

bool sameFile(const struct stat& a, const struct stat& b) {
    return a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

}  // namespace

CrashLog::~CrashLog() {
    for (Target* target : {&errorLog_, &moduleLog_}) {
        if (target->fd != -1) close(target->fd);
        target->fd = -1;
    }
}

void CrashLog::prepare(const CStdStr& logsFolder, const CStdStr& moduleName) {
    prepareTarget(errorLog_, logsFolder + "/" + kErrorLogName);
    prepareTarget(moduleLog_, logsFolder + "/" + moduleName + ".log");
    std::size_t length = 0;
    shortName_[0] = '\0';
    appendTo(shortName_, sizeof(shortName_), length, moduleName.c_str());
    const time_t now = time(nullptr);
    tm local{};
    utcOffsetSeconds_ = localtime_r(&now, &local) != nullptr ? local.tm_gmtoff : 0;
}

void CrashLog::prepareTarget(Target& target, const CStdStr& path) {
    if (target.fd != -1) close(target.fd);
    target.fd = -1;
    target.path[0] = '\0';
    if (path.size() >= sizeof(target.path)) return;  // no such file can exist
    std::memcpy(target.path, path.c_str(), path.size() + 1);
    int fd = -1;
    if (CBBLog::openLogFile(*LogFileIo::system(), fd, path, false)) target.fd = fd;
}

void CrashLog::begin() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    const long long local = static_cast<long long>(now.tv_sec) + utcOffsetSeconds_;
    const long long days = (local >= 0 ? local : local - 86399) / 86400;
    const long long secondOfDay = local - days * 86400;
    const CivilDate date = civilFromDays(days);

    length_ = 0;
    line_[0] = '\0';
    // The logger's header: "YYYY/MM/DD hh:mm:ss.mmm [FATAL] - <module> - ".
    appendNumber(line_, sizeof(line_), length_, date.year, 4);
    const long long fields[] = {date.month, date.day, secondOfDay / 3600, secondOfDay / 60 % 60,
                                secondOfDay % 60};
    const char* separators[] = {"/", "/", " ", ":", ":"};
    for (int i = 0; i < 5; ++i) {
        appendTo(line_, sizeof(line_), length_, separators[i]);
        appendNumber(line_, sizeof(line_), length_, fields[i], 2);
    }
    appendTo(line_, sizeof(line_), length_, ".");
    appendNumber(line_, sizeof(line_), length_, now.tv_nsec / 1000000, 3);
    appendTo(line_, sizeof(line_), length_, " [FATAL] - ");
    appendTo(line_, sizeof(line_), length_, shortName_);
    appendTo(line_, sizeof(line_), length_, " - ");
}

void CrashLog::append(const char* text) { appendTo(line_, sizeof(line_) - 1, length_, text); }

void CrashLog::append(long long number) {
    appendNumber(line_, sizeof(line_) - 1, length_, number, 1);
}

void CrashLog::finish() {
    // append() keeps one byte free for the newline.
    line_[length_++] = '\n';
    line_[length_] = '\0';
    writeTo(errorLog_, line_, length_);
    writeTo(moduleLog_, line_, length_);
}

void CrashLog::writeTo(Target& target, const char* data, std::size_t length) {
    if (target.path[0] == '\0') return;
    struct stat opened {};
    struct stat named {};
    const bool current = target.fd != -1 && fstat(target.fd, &opened) == 0 &&
                         stat(target.path, &named) == 0 && sameFile(opened, named);
    if (!current) {
        // As the logger opens an existing file: never through a link, never waiting on a
        // FIFO, regular files only; creating one is left to the logger.
        const int fd =
            open(target.path, O_WRONLY | O_APPEND | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
        struct stat info {};
        if (fd != -1 && fstat(fd, &info) == 0 && S_ISREG(info.st_mode)) {
            if (target.fd != -1) close(target.fd);
            target.fd = fd;
        } else if (fd != -1) {
            close(fd);
        }
    }
    if (target.fd == -1) return;
    for (std::size_t done = 0; done < length;) {
        const ssize_t n = write(target.fd, data + done, length - done);
        if (n <= 0) return;  // nothing more can be done from here
        done += static_cast<std::size_t>(n);
    }
}

void CrashLog::waitUntilQuiet(int maxMilliseconds) const {
    constexpr int kPollMilliseconds = 20;
    constexpr int kQuietPolls = 3;
    if (moduleLog_.path[0] == '\0') return;
    long long lastSize = -1;
    int quiet = 0;
    for (int waited = 0; waited < maxMilliseconds && quiet < kQuietPolls;
         waited += kPollMilliseconds) {
        struct stat info {};
        const long long size = stat(moduleLog_.path, &info) == 0 ? info.st_size : -1;
        quiet = size == lastSize ? quiet + 1 : 0;
        lastSize = size;
        const timespec pause{0, kPollMilliseconds * 1000L * 1000L};
        nanosleep(&pause, nullptr);
    }
}
