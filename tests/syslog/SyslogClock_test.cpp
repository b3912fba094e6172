// SPDX-License-Identifier: MIT
// A sender's clock estimate and the rewriting of its stamps into server time.

#include "SyslogClock.h"

#include <string>

#include <gtest/gtest.h>

#include "DeviceLogConverter.h"
#include "NimbTestSupport.h"
#include "SyslogParser.h"

namespace {

using nimbtest::ScopedTimeZone;

long long utc(int year, int month, int day, int hour, int minute, int second) {
    return DeviceLogConverter::utcSeconds(
        nimbtest::dateTime(year, month, day, hour, minute, second));
}

SyslogStamp stampOf(const std::string& text) {
    SyslogStamp stamp;
    if (SyslogParser::readIsoStamp(text, stamp) == 0) SyslogParser::readBsdStamp(text, stamp);
    EXPECT_TRUE(stamp.present) << text;
    return stamp;
}

TEST(SyslogClockTest, EstimateIgnoresDelayedAndFutureStamps) {
    const ScopedTimeZone zone("UTC");
    SyslogClock clock;
    EXPECT_FALSE(clock.isKnown());
    EXPECT_EQ(clock.offsetSeconds(), 0);
    const long long arrival = utc(2026, 11, 24, 10, 0, 0);
    for (int i = 0; i < 100; ++i) {
        // Three in four lines arrive seconds late (queued), the rest at once; one stamp
        // in fifty is from the future. The median would read the queue as a slow clock.
        const long long delay = i % 4 == 0 ? 0 : 3000 + (i % 7) * 900;
        const char* stamp = i % 50 == 7 ? "Nov 24 12:00:00" : "Nov 24 11:00:00";
        clock.addSample(stampOf(stamp), arrival * 1000 + delay);
    }
    EXPECT_TRUE(clock.isKnown());
    EXPECT_EQ(clock.offsetSeconds(), 3600);
    EXPECT_EQ(clock.senderTime(arrival), "2026/11/24 11:00:00");
}

TEST(SyslogClockTest, WallClockStampsCompareWithTheServersWallClock) {
    const ScopedTimeZone zone("Europe/Berlin");
    const long long arrival = utc(2026, 11, 24, 9, 0, 0);  // 10:00 in Berlin
    SyslogClock sameZone;
    sameZone.addSample(stampOf("Nov 24 10:00:00.400"), arrival * 1000 + 300);
    EXPECT_EQ(sameZone.offsetSeconds(), 0);
    // A zoned stamp two minutes fast, from a sender in another zone.
    SyslogClock zoned;
    const SyslogStamp fast = stampOf("2026-11-24T04:02:00-05:00");
    zoned.addSample(fast, arrival * 1000);
    EXPECT_EQ(zoned.offsetSeconds(), 120);
    EXPECT_EQ(zoned.rewrite(fast, arrival), "2026/11/24 10:00:00");
    EXPECT_EQ(zoned.senderTime(arrival), "2026/11/24 09:02:00");  // UTC for zoned senders
    // A router on UTC wall time, seen from Berlin: one hour behind, rewritten to Berlin.
    SyslogClock router;
    const SyslogStamp behind = stampOf("Nov 24 09:00:03");
    router.addSample(behind, (arrival + 3) * 1000);
    EXPECT_EQ(router.offsetSeconds(), -3600);
    EXPECT_EQ(router.rewrite(behind, arrival + 3), "2026/11/24 10:00:03");
}

TEST(SyslogClockTest, StampsWithoutAYearTakeTheNearestYear) {
    const ScopedTimeZone zone("UTC");
    // The sender is five minutes fast; its clock has already passed the new year.
    const long long arrival = utc(2026, 12, 31, 23, 58, 0);
    SyslogClock clock;
    const SyslogStamp newYear = stampOf("Jan  1 00:03:00");
    clock.addSample(newYear, arrival * 1000);
    EXPECT_EQ(clock.offsetSeconds(), 300);
    EXPECT_EQ(clock.rewrite(newYear, arrival), "2026/12/31 23:58:00");
    // A late line of the old year arriving after the server's new year.
    const long long later = utc(2027, 1, 1, 0, 1, 0);
    EXPECT_EQ(clock.rewrite(stampOf("Dec 31 23:59:59"), later), "2026/12/31 23:54:59");
    EXPECT_EQ(SyslogClock::stampSeconds(stampOf("Feb 29 12:00:00"), utc(2028, 3, 1, 0, 0, 0)),
              utc(2028, 2, 29, 12, 0, 0));
}

}  // namespace
