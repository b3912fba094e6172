// SPDX-License-Identifier: MIT
// A sender's clock estimate and the rewriting of its stamps into server time.

#include "SyslogClock.h"

#include <cstdio>
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
    // Stamps that old could be a queue, so it takes lines spread over 30 s to tell.
    SyslogClock router;
    for (int second = 0; second <= 30; second += 10)
        router.addSample(stampOf("Nov 24 09:00:" + std::to_string(10 + second)),
                         (arrival + 10 + second) * 1000);
    EXPECT_EQ(router.offsetSeconds(), -3600);
    EXPECT_EQ(router.rewrite(stampOf("Nov 24 09:00:03"), arrival + 3), "2026/11/24 10:00:03");
}

// Stamps of "Nov 24 hh:mm:ss" for `seconds` after 10:00:00.
SyslogStamp at(long long seconds) {
    char text[80];
    std::snprintf(text, sizeof(text), "Nov 24 %02lld:%02lld:%02lld", 10 + seconds / 3600,
                  seconds / 60 % 60, seconds % 60);
    return stampOf(text);
}

TEST(SyslogClockTest, QueuedLinesKeepTheEstimate) {
    const ScopedTimeZone zone("UTC");
    const long long ten = utc(2026, 11, 24, 10, 0, 0);
    // A right clock, live for five minutes, then ten minutes of queue (a restart of the
    // collector) delivered within 300 ms, five lines a second of the outage, oldest first.
    SyslogClock clock;
    for (long long second = 0; second < 300; second += 5)
        clock.addSample(at(second), (ten + second) * 1000 + 40);
    ASSERT_EQ(clock.offsetSeconds(), 0);
    const long long back = ten + 900;
    for (int i = 0; i < 3000; ++i) clock.addSample(at(300 + i / 5), back * 1000 + i / 10);
    EXPECT_EQ(clock.offsetSeconds(), 0);
    // The same queue held back by the rate bound, delivered over a minute.
    for (int i = 0; i < 3000; ++i) clock.addSample(at(300 + i / 5), back * 1000 + i * 20);
    EXPECT_EQ(clock.offsetSeconds(), 0);
    // One application's lines relayed a minute late for ten minutes, beside live ones.
    for (long long second = 1000; second < 1600; second += 2)
        clock.addSample(at(second - (second % 4 == 0 ? 60 : 0)), (ten + second) * 1000);
    EXPECT_EQ(clock.offsetSeconds(), 0);

    // A clock an hour fast keeps its offset through its queue, and a queued line is
    // rewritten to when it was written, not when it arrived.
    SyslogClock fast;
    for (long long second = 0; second < 60; second += 5)
        fast.addSample(at(3600 + second), (ten + second) * 1000);
    for (int i = 0; i < 600; ++i) fast.addSample(at(3660 + i), (ten + 900) * 1000 + i);
    EXPECT_EQ(fast.offsetSeconds(), 3600);
    EXPECT_EQ(fast.rewrite(at(3660), ten + 900), "2026/11/24 10:01:00");

    // A new sender whose first lines are a queue: unknown until a live line.
    SyslogClock fresh;
    for (int i = 0; i < 600; ++i) fresh.addSample(at(i), (ten + 900) * 1000 + i);
    EXPECT_FALSE(fresh.isKnown());
    EXPECT_EQ(fresh.offsetSeconds(), 0);
    fresh.addSample(at(901), (ten + 901) * 1000 + 30);
    EXPECT_TRUE(fresh.isKnown());
    EXPECT_EQ(fresh.offsetSeconds(), 0);
}

TEST(SyslogClockTest, AClockSetLaterIsFollowedFromLiveLines) {
    const ScopedTimeZone zone("UTC");
    // Lines arrive from 11:00 on; the sender's clock is right for ten minutes.
    const long long eleven = utc(2026, 11, 24, 11, 0, 0);
    SyslogClock clock;
    for (long long second = 0; second < 600; second += 5)
        clock.addSample(at(3600 + second), (eleven + second) * 1000 + 20);
    ASSERT_EQ(clock.offsetSeconds(), 0);
    // Set back by an hour, one line every two seconds: late stamps agreeing on one
    // offset take over once they span 30 s (ten margins of three seconds), not before.
    long long second = 600;
    for (; second < 628; second += 2) clock.addSample(at(second), (eleven + second) * 1000 + 20);
    EXPECT_EQ(clock.offsetSeconds(), 0);
    for (; second <= 640; second += 2) clock.addSample(at(second), (eleven + second) * 1000 + 20);
    EXPECT_EQ(clock.offsetSeconds(), -3600);
    EXPECT_EQ(clock.rewrite(at(640), eleven + 640), "2026/11/24 11:10:40");
    // Then an hour fast: stamps from the future take over within a few lines.
    for (int i = 0; i < 16; ++i, ++second)
        clock.addSample(at(7200 + second), (eleven + second) * 1000);
    EXPECT_EQ(clock.offsetSeconds(), 3600);
    // A larger threshold widens the margin and the span with it (ten margins of 11 s).
    SyslogClock tolerant(10);
    for (second = 0; second < 100; second += 10)
        tolerant.addSample(at(second), (eleven + second) * 1000);
    EXPECT_FALSE(tolerant.isKnown());
    tolerant.addSample(at(110), (eleven + 110) * 1000);
    EXPECT_EQ(tolerant.offsetSeconds(), -3600);
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
