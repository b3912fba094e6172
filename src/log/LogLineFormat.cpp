// SPDX-License-Identifier: MIT
#include "LogLineFormat.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

#include <sys/time.h>

#include "RotatingLogFile.h"

namespace {

const char* const kLevelLabels[] = {"FATAL", "ERROR", "WARN", "INFO", "DEBUG"};

const char* levelLabel(LOGLEVEL level) {
    // A level outside the table (possible through AddLog) gets a blank label.
    if (level < FATAL || level > DEBUG) return "";
    return kLevelLabels[level];
}

// Local wall-clock time split into the fields of a line header.
struct ClockFields {
    int year, month, day, hour, minute, second, millisecond;
};

ClockFields localNow() {
    timeval now{};
    gettimeofday(&now, nullptr);
    // The calendar fields change once a second; converting once per second and thread
    // keeps localtime_r (and its process-wide lock) off the hot path.
    thread_local time_t cachedSecond = -1;
    thread_local tm cachedFields{};
    if (now.tv_sec != cachedSecond) {
        localtime_r(&now.tv_sec, &cachedFields);
        cachedSecond = now.tv_sec;
    }
    return {cachedFields.tm_year + 1900,
            cachedFields.tm_mon + 1,
            cachedFields.tm_mday,
            cachedFields.tm_hour,
            cachedFields.tm_min,
            cachedFields.tm_sec,
            static_cast<int>(now.tv_usec / 1000)};
}

size_t keptLength(int written, size_t size) {
    return std::min(static_cast<size_t>(std::max(written, 0)), size - 1);
}

// Up to the first '.', then after the last '/' or '\'.
CStdStr shortNameOf(const CStdStr& fileName) {
    CStdStr result = fileName.substr(0, fileName.find('.'));
    const size_t slash = result.find_last_of("/\\");
    if (slash != CStdStr::npos) result.erase(0, slash + 1);
    return result;
}

}  // namespace

LogLineFormat::LogLineFormat(const CStdStr& logName, bool withPid, unsigned pid)
    : shortName_(shortNameOf(logName)), withPid_(withPid), pid_(pid) {}

CStdStr LogLineFormat::lineHeader(LOGLEVEL level) const {
    // Room for the longest header: date, time, label and a 32-bit process id.
    char buffer[64];
    CStdStr result(buffer, header(buffer, sizeof(buffer), level));
    if (level == FATAL) {
        result += shortName_;
        result += " - ";
    }
    return result;
}

size_t LogLineFormat::header(char* out, size_t size, LOGLEVEL level) const {
    const ClockFields t = localNow();
    if (withPid_) {
        return keptLength(snprintf(out, size, "%04d/%02d/%02d %02d:%02d:%02d.%03d [%-5.5s] %u - ",
                                   t.year, t.month, t.day, t.hour, t.minute, t.second,
                                   t.millisecond, levelLabel(level), pid_),
                          size);
    }
    return keptLength(
        snprintf(out, size, "%04d/%02d/%02d %02d:%02d:%02d.%03d [%-5.5s] - ", t.year, t.month,
                 t.day, t.hour, t.minute, t.second, t.millisecond, levelLabel(level)),
        size);
}

size_t LogLineFormat::rotationReport(char* out, size_t size, const CStdStr& path, int error) const {
    char reason[256];
    // The GNU strerror_r returns the text, which need not be in `reason`.
    const char* text = strerror_r(error, reason, sizeof(reason));
    const size_t length = header(out, size, ERROR);
    const int rest =
        snprintf(out + length, size - length,
                 "%s - cannot rotate '%s' to '%s%s': %s; appending to it, next "
                 "attempt in %lld s\n",
                 shortName_.c_str(), path.c_str(), path.c_str(), RotatingLogFile::kBackupSuffix,
                 text, RotatingLogFile::kRotateRetryMs / 1000);
    return std::min(length + static_cast<size_t>(std::max(rest, 0)), size - 1);
}

size_t LogLineFormat::formatText(char* buffer, size_t size, const char* format, va_list args) {
    const int written = vsnprintf(buffer, size, format != nullptr ? format : "", args);
    if (written < 0) {
        buffer[0] = '\0';
        return 0;
    }
    return std::min(static_cast<size_t>(written), size - 1);
}

CStdStr LogLineFormat::timeString() {
    const ClockFields t = localNow();
    char buffer[64];
    snprintf(buffer, sizeof(buffer), "%04d/%02d/%02d %02d:%02d:%02d.%03d", t.year, t.month, t.day,
             t.hour, t.minute, t.second, t.millisecond);
    return buffer;
}
