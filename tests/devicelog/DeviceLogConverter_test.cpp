// SPDX-License-Identifier: MIT
#include "DeviceLogConverter.h"

#include <climits>
#include <cstdlib>
#include <ctime>
#include <random>
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

// Random text for comparing convertLog with the plain pattern loop: runs of timestamps
// a few seconds apart (now and then jumping to another year or to just before a
// daylight-saving change), near misses made by mutating stamps, and noise built of
// the bytes that matter to the pattern. Pieces are joined with or without separators,
// so stamps also touch and overlap each other.
class StampCorpus {
public:
    explicit StampCorpus(unsigned seed) : rng_(seed) {}

    // Appends about `pieces` pieces to `out`, for a conversion that moves stamps by
    // `shift` seconds; returns how many were stamps (whole or mutated).
    int append(std::string& out, int pieces, long shift) {
        shift_ = shift;
        int stamps = 0;
        for (int i = 0; i < pieces; ++i) {
            const int kind = pick(10);
            if (kind < 5) {
                out += stamp();
                ++stamps;
            } else if (kind < 7) {
                out += mutated(stamp());
                ++stamps;
            } else {
                out += noise();
            }
            static const char* kSeparators[] = {"", "", " ", "\n", "\t", "x", "1", ":"};
            out += kSeparators[pick(8)];
        }
        return stamps;
    }

    long moment() const { return moment_; }

private:
    int pick(int n) { return std::uniform_int_distribution<int>(0, n - 1)(rng_); }

    void advance() {
        static const long kJumps[] = {
            // Seconds before the spring and autumn changes of 2009 in central Europe (as
            // converted).
            1238288400 - 90, 1256432400 - 90,
            // Around new year, for month-name stamps without a year.
            1262304000 - 300, 0, 946684800, 2145916800};
        if (pick(50) == 0) {
            moment_ = kJumps[pick(6)] - shift_ + pick(60);
        } else if (pick(500) == 0) {
            moment_ = std::uniform_int_distribution<long>(0, 4102444800L)(rng_);
        } else if (pick(8) == 0) {
            moment_ -= pick(40);  // log lines are not always in order
        } else {
            moment_ += pick(70);
        }
    }

    std::string stamp() {
        advance();
        const time_t seconds = moment_;
        tm t{};
        gmtime_r(&seconds, &t);
        char text[64];
        if (pick(2) == 0) {
            std::snprintf(text, sizeof text, "%04d/%02d/%02d %02d:%02d:%02d", t.tm_year + 1900,
                          t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec);
            return text;
        }
        static const char* kMonthNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                            "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
        static const char* kSpace[] = {"", " ", "  ", "\t", " \n ", "\r\v\f", " \t "};
        std::snprintf(text, sizeof text,
                      pick(2) == 0 ? "%s%s%d%s%02d:%02d:%02d" : "%s%s%02d%s%02d:%02d:%02d",
                      kMonthNames[t.tm_mon], kSpace[pick(7)], t.tm_mday, kSpace[pick(7)], t.tm_hour,
                      t.tm_min, t.tm_sec);
        return text;
    }

    std::string mutated(std::string text) {
        static const char kBytes[] = "0123456789:/ \tJanxy\xff";
        const std::size_t at = static_cast<std::size_t>(pick(static_cast<int>(text.size())));
        const char byte = kBytes[pick(static_cast<int>(sizeof kBytes) - 1)];
        switch (pick(3)) {
            case 0:
                text[at] = byte;
                break;
            case 1:
                text.erase(at, 1);
                break;
            default:
                text.insert(at, 1, byte);
        }
        return text;
    }

    std::string noise() {
        static const char* kTokens[] = {"Jan",    "Dec", "May",        "Ma",   "J",        "n",
                                        "0",      "12",  "7",          ":",    "/",        " ",
                                        "\t",     "\n",  "x",          "\xff", "12:34:56", "2009/",
                                        "09/30 ", ":00", "12:34:56:78"};
        std::string text;
        for (int n = 1 + pick(6); n > 0; --n) text += kTokens[pick(21)];
        return text;
    }

    std::mt19937 rng_;
    long shift_ = 0;
    long moment_ = 1238288400 - 3600;
};

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

// convertLog finds candidates with its own scan and keeps the time conversion of the
// minute it last saw: over 10^5 random and edge-case stamps, in zones with daylight
// saving and with an offset in seconds, it must write the very
// bytes of the plain pattern loop.
TEST(DeviceLogConverter, WritesWhatThePlainPatternLoopWrites) {
    // Central Europe with its changes in the middle of a minute, Lord Howe's half-hour
    // daylight saving, an offset in seconds.
    const char* kZones[] = {"CET-1CEST,M3.5.0/2:00:30,M10.5.0/3:00:30",
                            "<+1030>-10:30<+11>-11,M10.1.0,M4.1.0", "<LMT>-0:19:32"};
    StampCorpus corpus(20260424);
    int stamps = 0;
    for (int round = 0; round < 60; ++round) {
        ScopedTimeZone tz(kZones[round % 3]);
        std::string text;
        const long shift = (round % 5) * 3599 - 7000;
        stamps += corpus.append(text, 3000, shift);
        const long device = corpus.moment() + round * 997 - 30000;
        const long server = device + shift;
        // Whole and cut into request-sized pieces, which start and end anywhere.
        ASSERT_EQ(DeviceLogConverter::convertLog(text, device, server),
                  DeviceLogConverter::convertLogByPattern(text, device, server))
            << "round " << round;
        for (std::size_t at = 0; at < text.size(); at += 4096) {
            const CStdStr piece = text.substr(at, 4096 - round);
            ASSERT_EQ(DeviceLogConverter::convertLog(piece, device, server),
                      DeviceLogConverter::convertLogByPattern(piece, device, server))
                << "round " << round << " at " << at;
        }
    }
    EXPECT_GE(stamps, 100000);
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
