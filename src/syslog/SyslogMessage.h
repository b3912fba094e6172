// SPDX-License-Identifier: MIT
// SyslogMessage: one syslog message as the parser reads it: the fields that name its
// file (sender and application), its own time stamp, and the text written for it. A
// plain value; built by SyslogParser on the listener thread.
#pragma once

#include <cstddef>
#include <string>

struct SyslogStamp {
    // Whether the message carried a time stamp the parser could read.
    bool present = false;
    // The year was written (ISO 8601 stamps); a "Mmm dd hh:mm:ss" stamp has none.
    bool hasYear = false;
    // A zone was written ("Z" or an offset): `seconds` is then a true instant.
    bool hasZone = false;
    int year = 0, month = 1, day = 1, hour = 0, minute = 0, second = 0, millisecond = 0;
    // The written zone's offset from UTC in minutes (east positive).
    int zoneMinutes = 0;
};

struct SyslogMessage {
    enum class Format { kRfc3164, kRfc5424 };

    Format format = Format::kRfc3164;
    // The priority value 0..191, or -1 when the message had none.
    int priority = -1;
    // The sender's own name and the application, as sent ("" when absent or "-"). Not
    // checked here: whoever makes a file name of them checks them.
    std::string hostname;
    std::string appName;
    SyslogStamp stamp;
    // The line written for the message, without its newline: everything after the
    // priority (and the version of the newer format), with control characters escaped
    // as \xHH and invalid UTF-8 replaced by U+FFFD. When a stamp is present it comes
    // first and is `stampLength` bytes long.
    std::string text;
    std::size_t stampLength = 0;
    // Bytes cut because the message was longer than the maximum size.
    std::size_t truncatedBytes = 0;
};
