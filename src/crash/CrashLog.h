// SPDX-License-Identifier: MIT
// CrashLog: writes the FATAL crash line from inside a fault handler. Everything the line
// needs (the two files' paths and open descriptors, the local time offset, the buffer)
// is prepared in normal context; the crash-context calls only format into that fixed
// buffer and call write(2), so they neither allocate nor take a lock that the crashed
// thread (or a stopped one) might hold. Owned by MiniDumper.
#pragma once

#include <cstddef>

#include <limits.h>

#include "StdString.h"

class CrashLog {
public:
    // Room for the header, the application name twice and a dump path.
    static constexpr std::size_t kLineCapacity = 2 * PATH_MAX + 256;

    CrashLog() = default;
    CrashLog(const CrashLog&) = delete;
    CrashLog& operator=(const CrashLog&) = delete;
    // Closes the descriptors.
    ~CrashLog();

    // Opens (creating them as the logger does) "errors.log" and "<moduleName>.log" in
    // `logsFolder` for appending and notes the local time offset. A file that cannot be
    // opened now is opened again at the crash. Runs in: normal context; call again to
    // re-target (the previous descriptors are closed).
    void prepare(const CStdStr& logsFolder, const CStdStr& moduleName);

    // Starts a new line: the logger's FATAL header with the current local time.
    // Runs in: crash context.
    void begin();
    // Appends text or a decimal number; whatever does not fit is cut.
    // Runs in: crash context.
    void append(const char* text);
    void append(long long number);
    // Ends the line and appends it to both files in one write each. A file that was
    // renamed or deleted since prepare() is reopened at its path first (not created);
    // when that fails the line goes to the old file. Runs in: crash context.
    void finish();

    // Waits until the module log has stopped growing (the logger's writer thread
    // emptied its queue), for at most `maxMilliseconds`. Runs in: crash context.
    void waitUntilQuiet(int maxMilliseconds) const;

    const char* line() const { return line_; }

private:
    struct Target {
        char path[PATH_MAX] = {};
        int fd = -1;
    };
    static void prepareTarget(Target& target, const CStdStr& path);
    static void writeTo(Target& target, const char* data, std::size_t length);

    Target errorLog_;
    Target moduleLog_;
    char shortName_[NAME_MAX + 1] = {};
    long utcOffsetSeconds_ = 0;  // local time minus UTC when prepared
    char line_[kLineCapacity] = {};
    std::size_t length_ = 0;
};
