// SPDX-License-Identifier: MIT
// The severity read from device log lines: the labels of the formats devices send, the
// header fields before them, and level words in the message that must not count.

#include "DeviceLogSeverity.h"

#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

using DeviceLogSeverity::Level;

struct Case {
    const char* line;
    Level level;
};

// Grouped as the label rules are: bracketed labels, word labels, one-letter labels, pairs,
// JSON, then lines whose level words must not count.
const Case kLines[] = {
    // The suite's own header, nginx, Apache, MySQL, Rust, Go's bracketed labels.
    {"2026/11/25 10:00:00.123 [ERROR] - cannot open share", Level::Error},
    {"2026/11/25 10:00:00.123 [WARN ] 4321 - slow disk", Level::Warning},
    {"2026/11/25 10:00:00.123 [FATAL] - nimbd - out of memory", Level::Critical},
    {"2026/11/25 10:00:00.123 [INFO ] - error count 0, ERROR: none", Level::Info},
    {"2026/11/25 10:00:00 [error] 1234#0: *1 open() \"/x\" failed (2: No such file)", Level::Error},
    {"[Wed Nov 25 10:00:00.123456 2026] [core:error] [pid 1234:tid 5678] [client "
     "10.0.0.2:51234] AH00126: Invalid URI",
     Level::Error},
    {"[Wed Nov 25 10:00:00 2026] [notice] Apache configured", Level::Notice},
    {"2026-11-25T10:00:00.123456Z 0 [Warning] [MY-010068] [Server] CA is self signed",
     Level::Warning},
    {"[2026-11-25T10:00:00Z WARN  media_scan] slow", Level::Warning},
    {"[ notice ] x", Level::Notice},
    {"<E> bad frame", Level::Error},
    {"(warn) retrying", Level::Warning},
    {"[D] tick", Level::Debug},
    // Word labels: capitals as a field, any case before a colon.
    {"2026-11-25 10:00:00,123 WARN [main] c.e.Server - slow", Level::Warning},
    {"10:00:00.123 [main] ERROR c.e.App - failed", Level::Error},
    {"ERROR:root:cannot connect", Level::Error},
    {"WARNING:urllib3.connectionpool:Retrying", Level::Warning},
    {"2026-11-25 10:00:00,123 - media.scan - CRITICAL - db locked", Level::Critical},
    {"2026-11-25 10:00:00.123 | DEBUG    | mod:fn:1 - x", Level::Debug},
    {"[2026-11-25 10:00:00,123] ERROR in app: Exception on /", Level::Error},
    {"2026-11-25 10:00:00.123 UTC [1234] FATAL:  password authentication failed", Level::Critical},
    {"SEVERE: Servlet.service() threw exception", Level::Error},
    {"panic: runtime error: index out of range", Level::Emergency},
    {"Nov 25 08:09:45 nas nimbd[812]: Error: share not mounted", Level::Error},
    {"2026-11-25T10:00:00+0100 nas nimbd[12]: warning: disk nearly full", Level::Warning},
    {"Nov 25 08:09:45 nas nimbd[812]: TRC poll", Level::Debug},
    {"INFO\r", Level::Info},
    // Syslog priorities at the very start, before anything the message says.
    {"<11>Nov 25 08:09:45 nas app[1]: [INFO] started", Level::Error},
    {"<165>1 2026-11-25T10:00:00.000Z host app 12 ID47 - msg", Level::Notice},
    {"<4>[   12.345678] usb 1-1: device descriptor read/64, error -71", Level::Warning},
    {"<192>too high", Level::Unknown},
    // One-letter labels.
    {"E/MediaPlayer( 1234): error (1, -2147483648)", Level::Error},
    {"W/AudioFlinger:   write blocked", Level::Warning},
    {"11-25 10:00:00.123 F/libc    ( 1234): Fatal signal 11", Level::Critical},
    {"11-25 10:00:00.123  1234  5678 I ActivityManager: Start proc", Level::Info},
    {"E1125 10:00:00.123456    1 reflector.go:123] failed to list", Level::Error},
    {"I/O error on /dev/sdb", Level::Unknown},
    {"I/O: retry", Level::Unknown},
    {"(C) 2026 Example Media", Level::Unknown},
    // key=value pairs.
    {"time=2026-11-25T10:00:00Z level=warn msg=\"disk nearly full\"", Level::Warning},
    {"ts=1 lvl=err caller=main.go:12 msg=x", Level::Error},
    {"level=3 msg=x", Level::Error},
    {"msg=\"level=error in text\" level=info", Level::Info},
    {"2026-11-25T10:00:00Z level=DEBUG", Level::Debug},
    {"time=2026-11-25T10:00:00Z msg=started ERROR", Level::Unknown},
    // JSON objects.
    {"{\"level\":\"error\",\"msg\":\"boom\"}", Level::Error},
    {"{\"time\":\"10:00\", \"severity\" : \"WARN\"}", Level::Warning},
    {"{\"lvl\": 4}", Level::Warning},
    {"{\"level\":50,\"msg\":\"x\"}", Level::Error},
    {"{\"PRIORITY\":\"6\",\"MESSAGE\":\"level error\"}", Level::Info},
    {"2026-11-25T10:00:00Z {\"level\":\"debug\"}", Level::Debug},
    {"{\"msg\":\"\\\"level\\\":\\\"error\\\"\",\"ctx\":{\"level\":\"error\"}}", Level::Unknown},
    {"{\"level\":\"custom\",\"severity\":\"notice\"}", Level::Notice},
    // No label: level words in the message, inside words, or prose.
    {"Nov 25 08:09:45 nas smartd[812]: Device: /dev/sda, 3 Currently unreadable sectors",
     Level::Unknown},
    {"Nov 25 08:09:45.123456 nas systemd[1]: Failed to start Samba.", Level::Unknown},
    {"Nov 25 08:09:45 nas kernel: usb 1-1: new device, error -71", Level::Unknown},
    {"2026/11/25 10:00:00 scan done: 0 errors", Level::Unknown},
    {"Scan finished with no error", Level::Unknown},
    {"3 ERROR lines dropped", Level::Unknown},  // a number passes only after a time
    {"Note: error counters are reset", Level::Unknown},
    {"ErrorCount=2 terrorist=0", Level::Unknown},
    {"Errors: 0", Level::Unknown},
    {"Error opening file", Level::Unknown},
    {"Traceback (most recent call last):", Level::Unknown},
    {"\tat com.example.Main.run(Main.java:12)", Level::Unknown},
    {"", Level::Unknown},
    {"   ", Level::Unknown},
};

TEST(DeviceLogSeverity, ReadsTheLabelOfEachFormat) {
    for (const Case& c : kLines) {
        EXPECT_EQ(DeviceLogSeverity::name(DeviceLogSeverity::ofLine(c.line)),
                  std::string(DeviceLogSeverity::name(c.level)))
            << c.line;
    }
}

TEST(DeviceLogSeverity, MaskHoldsTheLevelOfEveryLine) {
    using DeviceLogSeverity::bit;
    using DeviceLogSeverity::maskOf;
    const std::string text =
        "2026/11/25 10:00:00.123 [INFO ] - a\r\n"
        "E/Tag(1): b\n"
        "\tat x\n"
        "2026/11/25 10:00:00.124 [INFO ] - c\n"
        "level=warn";  // a last line without newline
    EXPECT_EQ(maskOf(text),
              bit(Level::Info) | bit(Level::Error) | bit(Level::Unknown) | bit(Level::Warning));
    EXPECT_EQ(maskOf(""), 0);
    EXPECT_EQ(maskOf("ERROR x\n"), bit(Level::Error));  // no line after the last newline
    EXPECT_EQ(maskOf("\n"), bit(Level::Unknown));
    EXPECT_EQ(maskOf(std::string("ERROR\0\nWARN x", 13)),
              bit(Level::Unknown) | bit(Level::Warning));
}

TEST(DeviceLogSeverity, NamesPrioritiesAndSynonyms) {
    for (int i = 0; i <= static_cast<int>(Level::Unknown); ++i) {
        const auto level = static_cast<Level>(i);
        Level parsed = Level::Emergency;
        EXPECT_TRUE(DeviceLogSeverity::parse(DeviceLogSeverity::name(level), parsed));
        EXPECT_EQ(parsed, level);
    }
    EXPECT_STREQ(DeviceLogSeverity::name(static_cast<Level>(200)), "unknown");
    const Case synonyms[] = {{"PANIC", Level::Emergency},   {"Fatal", Level::Critical},
                             {"critical", Level::Critical}, {"ERR", Level::Error},
                             {"warn", Level::Warning},      {"Informational", Level::Info},
                             {"trace", Level::Debug},       {"VERBOSE", Level::Debug}};
    for (const Case& c : synonyms) {
        Level parsed = Level::Unknown;
        EXPECT_TRUE(DeviceLogSeverity::parse(c.line, parsed)) << c.line;
        EXPECT_EQ(parsed, c.level) << c.line;
    }
    Level untouched = Level::Notice;
    for (const char* text : {"", "errors", "warn ", "e", "3"})
        EXPECT_FALSE(DeviceLogSeverity::parse(text, untouched)) << text;
    EXPECT_EQ(untouched, Level::Notice);

    EXPECT_EQ(DeviceLogSeverity::fromPriority(0), Level::Emergency);
    EXPECT_EQ(DeviceLogSeverity::fromPriority(11), Level::Error);
    EXPECT_EQ(DeviceLogSeverity::fromPriority(191), Level::Debug);
    EXPECT_EQ(DeviceLogSeverity::fromPriority(192), Level::Unknown);
    EXPECT_EQ(DeviceLogSeverity::fromPriority(-1), Level::Unknown);
}

// ofLine tries on a field only the rules its first byte allows, and passes the collector's
// own stamp "YYYY/MM/DD hh:mm:ss" in one step: the same levels as trying every rule, on
// the lines above and on random lines of stamps, label fragments and any bytes.
TEST(DeviceLogSeverity, ShortcutsGiveTheLevelOfTryingEveryRule) {
    for (const Case& c : kLines)
        EXPECT_EQ(DeviceLogSeverity::ofLine(c.line),
                  DeviceLogSeverity::ofLineTryingEveryRule(c.line))
            << c.line;
    std::mt19937 random(20261126);
    const std::string pieces[] = {"2026/11/25 10:00:00",
                                  "2026/11/25 10:00:0",
                                  "2026-11-25T10:00:00Z",
                                  "2026/11/25",
                                  "10:00",
                                  ".123",
                                  "Z",
                                  "T",
                                  " ",
                                  "\t",
                                  "\r",
                                  "[",
                                  "<",
                                  "(",
                                  "{",
                                  "\"level\":",
                                  "ERROR",
                                  "warn",
                                  "Info",
                                  "error:",
                                  "E",
                                  "W/",
                                  "I",
                                  "1125",
                                  "1234",
                                  "level=",
                                  "lvl=3",
                                  "UTC",
                                  "Nov",
                                  "app[1]:",
                                  "-",
                                  "|",
                                  "nas",
                                  "[main]",
                                  "x"};
    std::uniform_int_distribution<std::size_t> piece(0, std::size(pieces) - 1);
    std::uniform_int_distribution<int> count(0, 10);
    std::uniform_int_distribution<int> byte(0, 255);
    int labelled = 0;
    for (int i = 0; i < 50000; ++i) {
        std::string line;
        for (int n = count(random); n > 0; --n)
            line += pieces[piece(random)] + (n % 2 == 0 ? " " : "");
        if (!line.empty() && count(random) < 4)
            line[std::uniform_int_distribution<std::size_t>(0, line.size() - 1)(random)] =
                static_cast<char>(byte(random));
        const std::vector<char> exact(line.begin(), line.end());
        const std::string_view view(exact.data(), exact.size());
        const Level level = DeviceLogSeverity::ofLineTryingEveryRule(view);
        ASSERT_EQ(DeviceLogSeverity::ofLine(view), level) << line;
        labelled += level != Level::Unknown;
    }
    EXPECT_GT(labelled, 2000);  // the lines hold labels, not only text that states none
}

// Any bytes: random lines made mostly of label fragments, each in a buffer of exactly its
// size, so that a read past the end shows under the sanitizers; and very long lines.
TEST(DeviceLogSeverity, AnyBytesGiveALevel) {
    std::mt19937 random(20261125);
    const std::string pieces[] = {
        "[",    "]",  "<", ">",     "(", ")", "{",       "}",    "\"",
        "\\",   ":",  "=", " ",     "/", "E", "ERROR",   "warn", "level",
        "lvl=", "12", "3", "10:00", "-", "|", "app[1]:", "\xff", std::string(1, '\0'),
        "\xc3"};
    std::uniform_int_distribution<std::size_t> piece(0, std::size(pieces) - 1);
    std::uniform_int_distribution<int> count(0, 24);
    for (int i = 0; i < 20000; ++i) {
        std::string line;
        for (int n = count(random); n > 0; --n) line += pieces[piece(random)];
        const std::vector<char> exact(line.begin(), line.end());
        const Level level = DeviceLogSeverity::ofLine(std::string_view(exact.data(), exact.size()));
        ASSERT_LE(static_cast<int>(level), static_cast<int>(Level::Unknown)) << line;
    }
    const std::size_t big = 1 << 20;
    EXPECT_EQ(DeviceLogSeverity::ofLine(std::string(big, '[')), Level::Unknown);
    EXPECT_EQ(DeviceLogSeverity::ofLine("{\"level\":\"" + std::string(big, 'a')), Level::Unknown);
    EXPECT_EQ(DeviceLogSeverity::ofLine("x=" + std::string(big, '"')), Level::Unknown);
    EXPECT_EQ(DeviceLogSeverity::maskOf(std::string(big, '\n')),
              DeviceLogSeverity::bit(Level::Unknown));
}

}  // namespace
