// SPDX-License-Identifier: MIT
#include "DeviceLogConverter.h"

#include <climits>
#include <cstdlib>
#include <ctime>
#include <string>

#include <gtest/gtest.h>

#include "NimbTestSupport.h"

namespace {

using nimbtest::ScopedTimeZone;

long utc(int year, int month, int day, int h, int m, int s) {
    tm t = nimbtest::dateTime(year, month, day, h, m, s);
    return static_cast<long>(timegm(&t));
}

const char* kCentralEurope = "CET-1CEST,M3.5.0,M10.5.0/3";

}  // namespace

TEST(DeviceLogConverter, ShiftsTimestampsByTheClockDifferenceAndRecognisesItsOwnOutput) {
    ScopedTimeZone tz("UTC");
    const long server = utc(2008, 3, 1, 12, 0, 0);
    EXPECT_EQ(DeviceLogConverter::convertLog("2008/03/01 10:00:00 boot", server - 100, server),
              "2008/03/01 10:01:40 boot");
    // Device ahead of the server by a day: the shift crosses the month end backwards.
    EXPECT_EQ(DeviceLogConverter::convertLog("x 2008/03/01 00:00:05 y", server + 86400, server),
              "x 2008/02/29 00:00:05 y");
    // Converted text is recognised again.
    const long july = utc(2010, 7, 1, 0, 0, 0);
    const CStdStr once = DeviceLogConverter::convertLog("Feb 28 23:59:30 a", july, july + 60);
    EXPECT_EQ(once, "2010/03/01 00:00:30 a");
    EXPECT_EQ(DeviceLogConverter::convertLog(once, july, july + 60), "2010/03/01 00:01:30 a");
    // Out-of-range clock fields carry over.
    EXPECT_EQ(DeviceLogConverter::convertLog("2009/05/31 23:59:60", july, july),
              "2009/06/01 00:00:00");
}

TEST(DeviceLogConverter, InfersTheYearOfMonthNameTimestampsAroundNewYear) {
    ScopedTimeZone tz("UTC");
    const long justAfterNewYear = utc(2009, 1, 1, 0, 0, 10);
    EXPECT_EQ(
        DeviceLogConverter::convertLog("Dec 31 23:59:59 x", justAfterNewYear, justAfterNewYear),
        "2008/12/31 23:59:59 x");
    const long equalMoment = utc(2009, 12, 31, 23, 59, 59);
    EXPECT_EQ(DeviceLogConverter::convertLog("Dec 31 23:59:59 x", equalMoment, equalMoment),
              "2009/12/31 23:59:59 x");
    const long juneFirst = utc(2009, 6, 1, 0, 0, 0);
    EXPECT_EQ(DeviceLogConverter::convertLog("Jan  5 07:08:09", juneFirst, juneFirst),
              "2009/01/05 07:08:09");
    EXPECT_EQ(DeviceLogConverter::convertLog("Jun30 07:08:09", juneFirst, juneFirst),
              "2008/06/30 07:08:09");
}

TEST(DeviceLogConverter, LeavesNonTimestampsAndSurroundingBytesAlone) {
    ScopedTimeZone tz("UTC");
    const long now = utc(2009, 6, 1, 0, 0, 0);
    for (const char* text : {"", "no stamp here\n", "2008-03-01 10:00:00", "2008/3/1 10:00:00",
                             "2008/13/01 10:00:00", "jan 5 07:08:09", "Jan 5 7:08:09"}) {
        EXPECT_EQ(DeviceLogConverter::convertLog(text, now - 50, now), text) << text;
    }
    static const char kIn[] = "\xff\x01 2009/05/31 10:00:00\r\n\tMay 31 10:00:00\n\0tail";
    static const char kOut[] = "\xff\x01 2009/05/31 10:01:00\r\n\t2009/05/31 10:01:00\n\0tail";
    EXPECT_EQ(DeviceLogConverter::convertLog(CStdStr(kIn, sizeof(kIn) - 1), now, now + 60),
              CStdStr(kOut, sizeof(kOut) - 1));
}

TEST(DeviceLogConverter, LeapDayAndTheDayAfter) {
    ScopedTimeZone tz("UTC");
    const long now = utc(2012, 6, 1, 0, 0, 0);
    EXPECT_EQ(DeviceLogConverter::convertLog("2012/02/29 12:00:00|2012/03/01 12:00:00", now, now),
              "2012/02/29 12:00:00|2012/03/01 12:00:00");
    tm leapDay{};
    leapDay.tm_year = 112;
    leapDay.tm_mon = 1;
    leapDay.tm_mday = 29;
    tm dayAfter = leapDay;
    dayAfter.tm_mon = 2;
    dayAfter.tm_mday = 1;
    EXPECT_EQ(DeviceLogConverter::utcSeconds(dayAfter) - DeviceLogConverter::utcSeconds(leapDay),
              86400);
    // The calendar rule agrees with the C library over a wide range, 2038 onwards included.
    for (int year : {1970, 1999, 2000, 2024, 2038, 2100, 2400}) {
        for (int month = 1; month <= 12; ++month) {
            tm t{};
            t.tm_year = year - 1900;
            t.tm_mon = month - 1;
            t.tm_mday = 28;
            t.tm_hour = 23;
            EXPECT_EQ(DeviceLogConverter::utcSeconds(t), utc(year, month, 28, 23, 0, 0))
                << year << "-" << month;
        }
    }
}

TEST(DeviceLogConverter, WritesServerLocalTimeWithDaylightSaving) {
    ScopedTimeZone tz(kCentralEurope);
    const long winter = utc(2009, 1, 15, 0, 0, 0);
    EXPECT_EQ(DeviceLogConverter::convertLog("2009/01/15 10:00:00 w", winter, winter),
              "2009/01/15 11:00:00 w");
    const long summer = utc(2009, 7, 15, 12, 0, 0);
    EXPECT_EQ(DeviceLogConverter::convertLog("Jul 15 10:00:00 s", summer, summer - 3600),
              "2009/07/15 11:00:00 s");
    // Across the spring change (01:00 UTC on the last Sunday of March 2009, the 29th).
    EXPECT_EQ(
        DeviceLogConverter::convertLog("2009/03/29 00:59:59 2009/03/29 01:00:00", winter, winter),
        "2009/03/29 01:59:59 2009/03/29 03:00:00");
}

TEST(DeviceLogConverter, ConvertsEveryTimestampInALongText) {
    ScopedTimeZone tz("UTC");
    const long now = utc(2011, 1, 1, 0, 0, 0);
    CStdStr in, expected;
    for (int i = 0; i < 1000; ++i) {
        in.AppendFormat("line %d 2010/12/31 23:%02d:%02d text\n", i, i / 60 % 60, i % 60);
        expected.AppendFormat("line %d 2011/01/01 00:%02d:%02d text\n", i, i / 60 % 60, i % 60);
    }
    EXPECT_EQ(DeviceLogConverter::convertLog(in, now, now + 3600), expected);
}

// A caller's fields outside their ranges carry into the next unit exactly as timegm()
// carries them; the month in particular never indexes past the month table.
TEST(DeviceLogConverter, OutOfRangeFieldsCarryAsTimegmDoes) {
    struct Fields {
        int year, mon, mday, hour, min, sec;
    };
    const Fields cases[] = {
        {124, 12, 1, 0, 0, 0},  {124, -1, 1, 0, 0, 0},      {124, 25, 31, 0, 0, 0},
        {124, -13, 1, 0, 0, 0}, {124, 1000000, 1, 0, 0, 0}, {124, -1000000, 1, 0, 0, 0},
        {124, 0, 0, 0, 0, 0},   {124, 0, -400, 0, 0, 0},    {124, 1, 400, 0, 0, 0},
        {124, 0, 1, -1, 0, 0},  {124, 0, 1, 100000, 0, 0},  {124, 0, 1, 0, -61, -3601},
        {-200, 0, 1, 0, 0, 0},  {-1900, 0, 1, 0, 0, 0},     {70, 0, 1, 0, 0, -1},
    };
    for (const Fields& f : cases) {
        tm t{};
        t.tm_year = f.year;
        t.tm_mon = f.mon;
        t.tm_mday = f.mday;
        t.tm_hour = f.hour;
        t.tm_min = f.min;
        t.tm_sec = f.sec;
        tm copy = t;
        EXPECT_EQ(DeviceLogConverter::utcSeconds(t), static_cast<long>(timegm(&copy)))
            << f.year << " " << f.mon << " " << f.mday << " " << f.hour << ":" << f.min << ":"
            << f.sec;
    }
}

TEST(DeviceLogConverter, ConvertDateGivesEmptyWhenTheResultCannotBeShown) {
    ScopedTimeZone tz("UTC");
    tm t{};
    t.tm_year = 124;
    t.tm_mon = 13;  // February of the next year
    t.tm_mday = 1;
    EXPECT_EQ(DeviceLogConverter::convertDate(t, 0, 0), "2025/02/01 00:00:00");
    EXPECT_EQ(DeviceLogConverter::convertDate(t, LONG_MIN, 0), "");
    EXPECT_EQ(DeviceLogConverter::convertDate(t, 0, LONG_MAX), "");
    EXPECT_EQ(DeviceLogConverter::convertDate(t, -(1L << 60), 0), "");
}
