// SPDX-License-Identifier: MIT
#include "SyslogParser.h"

#include <algorithm>
#include <cstring>

namespace SyslogParser {

namespace {

const char* const kMonthNames = "JanFebMarAprMayJunJulAugSepOctNovDec";
// The longest application name the structured format allows; a longer tag is text.
constexpr std::size_t kMaxAppName = 48;

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads exactly `count` digits at `pos`; false when they are not all digits.
bool readNumber(std::string_view text, std::size_t pos, std::size_t count, int& value) {
    if (pos + count > text.size()) return false;
    value = 0;
    for (std::size_t i = pos; i < pos + count; ++i) {
        if (!isDigit(text[i])) return false;
        value = value * 10 + (text[i] - '0');
    }
    return true;
}

// Reads "hh:mm:ss" at `pos` and any ".fraction" after it; returns the end, 0 if none.
std::size_t readClock(std::string_view text, std::size_t pos, SyslogStamp& stamp) {
    if (pos + 8 > text.size() || text[pos + 2] != ':' || text[pos + 5] != ':') return 0;
    if (!readNumber(text, pos, 2, stamp.hour) || !readNumber(text, pos + 3, 2, stamp.minute) ||
        !readNumber(text, pos + 6, 2, stamp.second))
        return 0;
    if (stamp.hour > 23 || stamp.minute > 59 || stamp.second > 60) return 0;
    pos += 8;
    if (pos + 1 < text.size() && text[pos] == '.' && isDigit(text[pos + 1])) {
        ++pos;
        for (int scale = 100; pos < text.size() && isDigit(text[pos]); ++pos, scale /= 10)
            stamp.millisecond += (text[pos] - '0') * scale;
    }
    return pos;
}

// Reads a priority "<n>" (1 to 3 digits, at most 191); returns its length, 0 if none.
std::size_t readPriority(std::string_view text, int& priority) {
    if (text.empty() || text[0] != '<') return 0;
    std::size_t pos = 1;
    int value = 0;
    while (pos < text.size() && pos <= 3 && isDigit(text[pos]))
        value = value * 10 + (text[pos++] - '0');
    if (pos == 1 || pos >= text.size() || text[pos] != '>' || value > 191) return 0;
    priority = value;
    return pos + 1;
}

// The token at the start of `text` up to the next blank.
std::string_view token(std::string_view text) { return text.substr(0, text.find(' ')); }

// Skips one blank when there is one.
std::string_view afterBlank(std::string_view text) {
    return !text.empty() && text[0] == ' ' ? text.substr(1) : text;
}

// The structured data at the start of `text`: "-" or one or more "[...]" elements whose
// quoted values may hold escaped quotes and brackets. Returns its length.
std::size_t structuredDataLength(std::string_view text) {
    if (!text.empty() && text[0] == '-') return 1;
    std::size_t pos = 0;
    while (pos < text.size() && text[pos] == '[') {
        bool quoted = false;
        ++pos;
        for (; pos < text.size(); ++pos) {
            const char c = text[pos];
            if (quoted && c == '\\') {
                ++pos;  // the escaped character, whatever it is
            } else if (c == '"') {
                quoted = !quoted;
            } else if (c == ']' && !quoted) {
                break;
            }
        }
        if (pos >= text.size()) return text.size();  // unterminated: all of it
        ++pos;
    }
    return pos;
}

std::string_view nilToEmpty(std::string_view field) {
    return field == "-" ? std::string_view() : field;
}

// "<PRI>1 " has been read: TIMESTAMP HOSTNAME APP-NAME PROCID MSGID SD [MSG].
void parseStructured(std::string_view rest, SyslogMessage& message) {
    message.format = SyslogMessage::Format::kRfc5424;
    std::size_t stampLength = readIsoStamp(rest, message.stamp);
    if (stampLength == 0 || (stampLength < rest.size() && rest[stampLength] != ' ')) {
        message.stamp = SyslogStamp();
        stampLength = token(rest).size();  // "-" or a stamp that cannot be read
    } else {
        message.stampLength = stampLength;
    }
    std::string_view header = afterBlank(rest.substr(stampLength));
    const std::string_view host = token(header);
    header = afterBlank(header.substr(host.size()));
    const std::string_view app = token(header);
    header = afterBlank(header.substr(app.size()));
    header = afterBlank(header.substr(token(header).size()));  // PROCID
    header = afterBlank(header.substr(token(header).size()));  // MSGID
    header = header.substr(structuredDataLength(header));
    message.hostname = nilToEmpty(host);
    message.appName = nilToEmpty(app);
    appendInert(message.text, rest.substr(0, rest.size() - header.size()));
    // The message part may start with a byte order mark, which says it is UTF-8.
    std::string_view body = header;
    if (body.size() >= 4 && body[0] == ' ' && body.substr(1, 3) == "\xEF\xBB\xBF") {
        message.text += ' ';
        body = body.substr(4);
    }
    appendInert(message.text, body);
}

// The application of a traditional message: the tag before "[pid]" or ":"; only its
// last path component counts later. Empty when the token is not a tag.
std::string_view tagOf(std::string_view word) {
    const std::size_t end = word.find_first_of("[:");
    if (end == std::string_view::npos || end == 0 || end > kMaxAppName) return {};
    return word.substr(0, end);
}

// A word ending in ":" or holding "[" is a tag, not a host name.
bool isTagWord(std::string_view word) {
    return !word.empty() && (word.back() == ':' || word.find('[') != std::string_view::npos);
}

// A word that names a host: letters, digits, "-" and "_" in dot-separated labels
// ("nas", "cam-01.lan", "192.168.1.1"), or an IPv6 address ("fe80::1").
bool isHostName(std::string_view word) {
    if (word.empty() || word.size() > 253) return false;
    if (std::count(word.begin(), word.end(), ':') >= 2) {
        for (const char c : word) {
            if (!isDigit(c) && c != ':' && c != '.' && !((c | 0x20) >= 'a' && (c | 0x20) <= 'f'))
                return false;
        }
        return true;
    }
    bool labelStart = true;
    for (const char c : word) {
        if (c == '.') {
            if (labelStart) return false;  // an empty label
            labelStart = true;
            continue;
        }
        const bool letter = (c | 0x20) >= 'a' && (c | 0x20) <= 'z';
        if (!letter && !isDigit(c) && !(c == '-' && !labelStart) && c != '_') return false;
        labelStart = false;
    }
    return !labelStart;
}

// The length of "WORD: " at the start of `text` when `accept(WORD)`, 0 if not.
template <typename Accept>
std::size_t labelLength(std::string_view text, Accept accept) {
    const std::string_view word = token(text);
    return word.size() >= 2 && word.size() < text.size() && word.back() == ':' &&
                   accept(word.substr(0, word.size() - 1))
               ? word.size() + 1
               : 0;
}

bool isCounter(std::string_view word) {
    return word.size() <= 10 && word.find_first_not_of("0123456789") == std::string_view::npos;
}

// A zone name written after the time and before a colon (" UTC:", " CET:"): its length
// with the blank before it, 0 if there is none. Only the common names, so that a tag
// such as "CRON:" stays a tag.
std::size_t zoneNameLength(std::string_view text) {
    static constexpr std::string_view kZones[] = {
        "UTC",  "GMT", "WET", "WEST", "CET",  "CEST", "EET",  "EEST", "BST", "IST",
        "MSK",  "EST", "EDT", "CST",  "CDT",  "MST",  "MDT",  "PST",  "PDT", "AKST",
        "AKDT", "HST", "JST", "KST",  "AEST", "AEDT", "AWST", "NZST", "NZDT"};
    if (text.size() < 5 || text[0] != ' ') return 0;
    const std::size_t colon = text.find(':');
    if (colon == std::string_view::npos || colon > 5) return 0;
    for (const std::string_view zone : kZones) {
        if (text.substr(1, colon - 1) == zone) return colon;
    }
    return 0;
}

// The looser forms some senders use around the stamp: blanks after the priority, a
// message counter ("32: "), with the sender's name after it ("32: router1: "), a mark
// before the month saying whether the clock is set ("*Mar  1", ".Mar  1"), a zone name
// after the time ("10:00:00.123 UTC") and a colon after the stamp ("10:00:00: host").
// The text starts at the stamp; what came before it is not kept (the counter, the mark)
// or is the sender's name. Here only a word that is a host name names the sender.
// False (nothing set) when `rest` does not have such a form.
bool parseLoose(std::string_view rest, SyslogMessage& message) {
    std::size_t pos = rest.find_first_not_of(' ');
    if (pos == std::string_view::npos) return false;
    std::string_view origin;
    if (const std::size_t counter = labelLength(rest.substr(pos), isCounter); counter != 0) {
        pos += counter;
        if (const std::size_t name = labelLength(rest.substr(pos), isHostName); name != 0) {
            origin = rest.substr(pos, name - 2);
            pos += name;
        }
    }
    if (pos < rest.size() && (rest[pos] == '*' || rest[pos] == '.')) ++pos;
    SyslogStamp stamp;
    const std::string_view from = rest.substr(pos);
    std::size_t length = readBsdStamp(from, stamp);
    if (length == 0) length = readIsoStamp(from, stamp);
    if (length == 0) return false;
    length += zoneNameLength(from.substr(length));
    std::string_view after = from.substr(length);
    if (!after.empty() && after[0] == ':') after.remove_prefix(1);
    if (!after.empty() && after[0] != ' ') return false;
    message.stamp = stamp;
    message.stampLength = length;
    message.hostname = origin;
    after = afterBlank(after);
    const std::string_view word = token(after);
    if (origin.empty() && !isTagWord(word) && isHostName(word)) {
        message.hostname = word;
        after = afterBlank(after.substr(word.size()));
    }
    message.appName = tagOf(token(after));
    appendInert(message.text, from);
    return true;
}

void parseTraditional(std::string_view rest, SyslogMessage& message) {
    std::size_t stampLength = readBsdStamp(rest, message.stamp);
    if (stampLength == 0) stampLength = readIsoStamp(rest, message.stamp);
    if (stampLength != 0 && stampLength < rest.size() && rest[stampLength] != ' ') {
        message.stamp = SyslogStamp();  // "Jan 12 10:00:00x": not a stamp after all
        stampLength = 0;
    }
    if (stampLength == 0 && parseLoose(rest, message)) return;
    message.stampLength = stampLength;
    std::string_view after = rest.substr(stampLength);
    if (stampLength != 0) {
        after = afterBlank(after);
        // The host name follows the stamp unless the next word is already the tag.
        const std::string_view word = token(after);
        if (!word.empty() && !isTagWord(word)) {
            message.hostname = word;
            after = afterBlank(after.substr(word.size()));
        }
    }
    message.appName = tagOf(token(after));
    appendInert(message.text, rest);
}

}  // namespace

std::size_t readIsoStamp(std::string_view text, SyslogStamp& stamp) {
    SyslogStamp read;
    if (text.size() < 19 || text[4] != '-' || text[7] != '-' ||
        (text[10] != 'T' && text[10] != 't'))
        return 0;
    if (!readNumber(text, 0, 4, read.year) || !readNumber(text, 5, 2, read.month) ||
        !readNumber(text, 8, 2, read.day) || read.month < 1 || read.month > 12 || read.day < 1 ||
        read.day > 31)
        return 0;
    std::size_t pos = readClock(text, 11, read);
    if (pos == 0) return 0;
    read.hasYear = true;
    if (pos < text.size() && (text[pos] == 'Z' || text[pos] == 'z')) {
        read.hasZone = true;
        ++pos;
    } else if (pos + 6 <= text.size() && (text[pos] == '+' || text[pos] == '-') &&
               text[pos + 3] == ':') {
        int hours = 0, minutes = 0;
        if (readNumber(text, pos + 1, 2, hours) && readNumber(text, pos + 4, 2, minutes) &&
            hours <= 23 && minutes <= 59) {
            read.hasZone = true;
            read.zoneMinutes = (hours * 60 + minutes) * (text[pos] == '-' ? -1 : 1);
            pos += 6;
        }
    }
    read.present = true;
    stamp = read;
    return pos;
}

std::size_t readBsdStamp(std::string_view text, SyslogStamp& stamp) {
    if (text.size() < 14 || text[3] != ' ') return 0;
    const char* found = nullptr;
    for (const char* month = kMonthNames; *month != '\0'; month += 3) {
        if (std::memcmp(month, text.data(), 3) == 0) found = month;
    }
    if (found == nullptr) return 0;
    SyslogStamp read;
    read.month = static_cast<int>((found - kMonthNames) / 3) + 1;
    std::size_t pos = 4;
    if (text[pos] == ' ') ++pos;  // "Mar  1": the day padded with a blank
    if (!isDigit(text[pos])) return 0;
    read.day = text[pos++] - '0';
    if (pos < text.size() && isDigit(text[pos])) read.day = read.day * 10 + (text[pos++] - '0');
    if (read.day < 1 || read.day > 31 || pos >= text.size() || text[pos] != ' ') return 0;
    ++pos;
    // Some devices write the year between the day and the time.
    if (pos + 5 <= text.size() && text[pos + 4] == ' ' && readNumber(text, pos, 4, read.year)) {
        read.hasYear = true;
        pos += 5;
    }
    pos = readClock(text, pos, read);
    if (pos == 0) return 0;
    read.present = true;
    stamp = read;
    return pos;
}

void appendInert(std::string& out, std::string_view bytes) {
    static const char kHex[] = "0123456789ABCDEF";
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.data());
    const auto* end = p + bytes.size();
    while (p < end) {
        const unsigned char c = *p;
        if (c >= 0x20 && c < 0x7F) {
            const auto* run = p;
            while (p < end && *p >= 0x20 && *p < 0x7F) ++p;
            out.append(reinterpret_cast<const char*>(run), static_cast<std::size_t>(p - run));
            continue;
        }
        if (c < 0x80) {
            if (c == '\t') {
                out += '\t';
            } else {
                const char escaped[4] = {'\\', 'x', kHex[c >> 4], kHex[c & 15]};
                out.append(escaped, 4);
            }
            ++p;
            continue;
        }
        // A multi-byte sequence: the shortest form only, no surrogates, at most U+10FFFF.
        std::size_t length = 0;
        unsigned lowest = 0;
        if (c >= 0xC2 && c <= 0xDF) {
            length = 2;
            lowest = 0x80;
        } else if (c >= 0xE0 && c <= 0xEF) {
            length = 3;
            lowest = 0x800;
        } else if (c >= 0xF0 && c <= 0xF4) {
            length = 4;
            lowest = 0x10000;
        }
        bool valid = length != 0 && static_cast<std::size_t>(end - p) >= length;
        unsigned code = length == 2 ? c & 0x1F : length == 3 ? c & 0x0F : c & 0x07;
        for (std::size_t i = 1; valid && i < length; ++i) {
            valid = (p[i] & 0xC0) == 0x80;
            code = (code << 6) | (p[i] & 0x3F);
        }
        valid = valid && code >= lowest && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
        if (valid) {
            out.append(reinterpret_cast<const char*>(p), length);
            p += length;
        } else {
            out += "\xEF\xBF\xBD";
            ++p;
        }
    }
}

SyslogMessage parse(std::string_view bytes, std::size_t maxSize) {
    SyslogMessage message;
    parseInto(bytes, maxSize, message);
    return message;
}

void parseInto(std::string_view bytes, std::size_t maxSize, SyslogMessage& message) {
    // Field by field, so that the strings keep their buffers for the next message.
    message.format = SyslogMessage::Format::kRfc3164;
    message.priority = -1;
    message.hostname.clear();
    message.appName.clear();
    message.stamp = SyslogStamp();
    message.text.clear();
    message.stampLength = 0;
    message.truncatedBytes = 0;
    if (bytes.size() > maxSize) {
        message.truncatedBytes = bytes.size() - maxSize;
        bytes = bytes.substr(0, maxSize);
    }
    while (!bytes.empty() && (bytes.back() == '\n' || bytes.back() == '\r' || bytes.back() == '\0'))
        bytes.remove_suffix(1);
    message.text.reserve(bytes.size() + 16);
    std::string_view rest = bytes.substr(readPriority(bytes, message.priority));
    // The structured format: a version (1 or 2 digits, not 0) and a blank.
    if (message.priority >= 0 && rest.size() >= 2 && rest[0] >= '1' && rest[0] <= '9') {
        std::size_t pos = 1;
        if (isDigit(rest[pos])) ++pos;
        if (pos < rest.size() && rest[pos] == ' ') {
            parseStructured(rest.substr(pos + 1), message);
            return;
        }
    }
    parseTraditional(rest, message);
}

}  // namespace SyslogParser
