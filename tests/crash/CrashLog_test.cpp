// SPDX-License-Identifier: MIT
// The crash line writer, outside a crash: its header matches the logger's in the local
// time zone, it follows a file renamed since it was prepared, and it cuts what does not
// fit instead of writing past its buffer.
#include "CrashLog.h"

#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "CrashTestSupport.h"

namespace {

using namespace crashtest;

// Seconds since 1970 of a "YYYY/MM/DD hh:mm:ss" local time at the start of `text`.
time_t localSeconds(const std::string& text) {
    tm fields{};
    if (strptime(text.c_str(), "%Y/%m/%d %H:%M:%S", &fields) == nullptr) return -1;
    fields.tm_isdst = -1;
    return mktime(&fields);
}

class CrashLogTest : public ::testing::Test {
protected:
    std::string writeLine(CrashLog& log, const char* text, long long number) {
        log.begin();
        log.append(text);
        log.append(number);
        log.finish();
        return log.line();
    }
    fs::path errors() const { return folder_.path() / "errors.log"; }
    fs::path own() const { return folder_.path() / "Module.log"; }

    TempFolder folder_;
};

TEST_F(CrashLogTest, HeaderIsTheLoggersFatalHeaderInLocalTime) {
    for (const char* zone : {"UTC0", "NZST-12NZDT,M9.5.0,M4.1.0/3", "HST10"}) {
        ScopedTimeZone tz(zone);
        CrashLog log;
        log.prepare(folder_.path().string(), "Module");
        // The precise clock, as the logger reads it: time() reads a coarser one that may
        // still show the last second for a few milliseconds after the logger's turned.
        const auto now = [] {
            struct timespec ts {};
            clock_gettime(CLOCK_REALTIME, &ts);
            return ts.tv_sec;
        };
        const time_t before = now();
        const std::string line = writeLine(log, "crash: ", -42);
        const time_t after = now();
        ASSERT_GE(line.size(), 23u) << line;
        EXPECT_EQ(line.substr(23), " [FATAL] - Module - crash: -42\n") << zone;
        const time_t stamped = localSeconds(line);
        EXPECT_GE(stamped, before) << line << " " << zone;
        EXPECT_LE(stamped, after) << line << " " << zone;
        EXPECT_EQ(line[19], '.');
    }
    // Both files got all three lines.
    EXPECT_EQ(linesOf(readFile(errors())).size(), 3u);
    EXPECT_EQ(readFile(own()), readFile(errors()));
}

TEST_F(CrashLogTest, FollowsAFileRotatedAwayAndCutsWhatDoesNotFit) {
    CrashLog log;
    log.prepare(folder_.path().string(), "Module");
    fs::rename(own(), folder_.path() / "Module.log.back");
    writeFile(own(), "");
    const std::string huge(CrashLog::kLineCapacity * 2, 'x');
    const std::string line = writeLine(log, huge.c_str(), 7);
    EXPECT_EQ(line.size(), CrashLog::kLineCapacity - 1);
    EXPECT_EQ(line.back(), '\n');
    EXPECT_EQ(readFile(own()), line);
    EXPECT_EQ(readFile(folder_.path() / "Module.log.back"), "");
}

}  // namespace
