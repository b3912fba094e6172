// SPDX-License-Identifier: MIT
// SyslogParser: reads one syslog message in either of the two formats devices send: the
// structured one ("<PRI>1 TIMESTAMP HOST APP PROCID MSGID SD MSG") and the traditional
// one ("<PRI>Mmm dd hh:mm:ss HOST TAG: MSG"), with every part optional as real senders
// leave them out, and the looser traditional forms network devices send (a counter before
// the stamp, a colon after it). Never fails: whatever cannot be read as a field stays in
// the text.
// Pure functions, any thread.
#pragma once

#include <cstddef>
#include <string_view>

#include "SyslogMessage.h"

namespace SyslogParser {

// Parses `bytes` (one message, any bytes) into a message. Input beyond `maxSize` bytes
// is cut first and counted in truncatedBytes; trailing newlines and NULs are dropped.
SyslogMessage parse(std::string_view bytes, std::size_t maxSize);
// The same into `message`, whose strings keep their buffers (for a caller that parses
// message after message).
void parseInto(std::string_view bytes, std::size_t maxSize, SyslogMessage& message);

// Reads an ISO 8601 stamp ("2026-11-22T10:00:00", optional fraction, optional "Z" or
// "+hh:mm") at the start of `text`; returns its length, 0 when there is none.
std::size_t readIsoStamp(std::string_view text, SyslogStamp& stamp);

// Reads a "Mmm dd hh:mm:ss" stamp (day padded with a blank or not, optional fraction,
// optional year after the day) at the start of `text`; returns its length, 0 if none.
std::size_t readBsdStamp(std::string_view text, SyslogStamp& stamp);

// Appends `bytes` to `out` with C0 control characters (but TAB) and DEL written as
// \xHH and every byte that is not part of valid UTF-8 replaced by U+FFFD.
void appendInert(std::string& out, std::string_view bytes);

}  // namespace SyslogParser
