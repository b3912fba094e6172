// SPDX-License-Identifier: MIT
#include "DeviceLogSeverity.h"

#include <cstddef>
#include <cstring>
#include <iterator>

namespace DeviceLogSeverity {

namespace {

constexpr std::size_t npos = std::string_view::npos;

// The level words, any case. The three-letter forms are what compact console loggers
// print; severe is the highest level of some Java loggers.
struct Word {
    std::string_view text;
    Level level;
};
constexpr Word kWords[] = {
    {"emerg", Level::Emergency},    {"emergency", Level::Emergency},
    {"panic", Level::Emergency},    {"alert", Level::Alert},
    {"crit", Level::Critical},      {"critical", Level::Critical},
    {"fatal", Level::Critical},     {"ftl", Level::Critical},
    {"err", Level::Error},          {"error", Level::Error},
    {"severe", Level::Error},       {"warn", Level::Warning},
    {"warning", Level::Warning},    {"wrn", Level::Warning},
    {"notice", Level::Notice},      {"info", Level::Info},
    {"inf", Level::Info},           {"information", Level::Info},
    {"informational", Level::Info}, {"debug", Level::Debug},
    {"dbg", Level::Debug},          {"trace", Level::Debug},
    {"trc", Level::Debug},          {"verbose", Level::Debug},
};
constexpr std::size_t kLongestWord = 13;

// The one-letter labels, upper case only: "[E]", "<W>", Android's "E/Tag:" and
// "... 1234 5678 E Tag:", and the "E1125 10:00:00" lines of some Go programs. Android's
// A (assert) and F are its fatal level.
struct Letter {
    char letter;
    Level level;
};
constexpr Letter kLetters[] = {
    {'A', Level::Critical}, {'F', Level::Critical}, {'C', Level::Critical},
    {'E', Level::Error},    {'W', Level::Warning},  {'N', Level::Notice},
    {'I', Level::Info},     {'D', Level::Debug},    {'V', Level::Debug},
};

// The keys that hold the level in key=value and JSON lines, any case.
constexpr std::string_view kLevelKeys[] = {"level",     "lvl",       "severity", "loglevel",
                                           "log.level", "levelname", "priority", "@l"};

// How far a label's closing bracket or a tag's "[pid]" may be from its start.
constexpr std::size_t kMaxBracket = 128;
constexpr std::size_t kMaxPid = 16;
// How many header fields (timestamp parts, numbers, bracketed fields, the syslog host
// and tag) may come before the label.
constexpr int kMaxFields = 16;

// ---- Byte classes. The scan asks these questions of most bytes it reads several times,
// so each is one look-up in a table built from the definitions below.

constexpr bool spaceByte(char c) { return c == ' ' || c == '\t' || c == '\r'; }
constexpr bool digitByte(char c) { return c >= '0' && c <= '9'; }
constexpr bool upperByte(char c) { return c >= 'A' && c <= 'Z'; }
constexpr bool lowerByte(char c) { return c >= 'a' && c <= 'z'; }
constexpr bool wordByte(char c) { return upperByte(c) || lowerByte(c) || digitByte(c) || c == '_'; }
constexpr bool keyByte(char c) { return wordByte(c) || c == '.' || c == '-' || c == '@'; }
// The bytes between the digits of a date or time ("2026-11-25T10:00:00.123+01:00").
constexpr bool timeByte(char c) {
    return c == '-' || c == '/' || c == ':' || c == '.' || c == ',' || c == '+';
}

enum ByteClass : std::uint16_t {
    kSpace = 1,
    kDigit = 2,
    kUpper = 4,
    kLower = 8,
    kWord = 16,          // letters, digits, '_'
    kKey = 32,           // the word bytes, '.', '-', '@'
    kTime = 64,          // timeByte
    kTagStop = 128,      // what ends a syslog tag's name: a space, ':', '['
    kStampLetter = 256,  // 'T' and 'Z' in a date and time
    kColon = 512,
    kEquals = 1024,
    kAnyClass = 0xffff,
};

struct ByteTable {
    std::uint16_t classes[256] = {};
};

constexpr ByteTable makeByteTable() {
    ByteTable table;
    for (int i = 0; i < 256; ++i) {
        const char c = static_cast<char>(i);
        table.classes[i] = static_cast<std::uint16_t>(
            (spaceByte(c) ? kSpace : 0) | (digitByte(c) ? kDigit : 0) |
            (upperByte(c) ? kUpper : 0) | (lowerByte(c) ? kLower : 0) | (wordByte(c) ? kWord : 0) |
            (keyByte(c) ? kKey : 0) | (timeByte(c) ? kTime : 0) |
            (spaceByte(c) || c == ':' || c == '[' ? kTagStop : 0) |
            (c == 'T' || c == 'Z' ? kStampLetter : 0) | (c == ':' ? kColon : 0) |
            (c == '=' ? kEquals : 0));
    }
    return table;
}
constexpr ByteTable kBytes = makeByteTable();

unsigned classOf(char c) { return kBytes.classes[static_cast<unsigned char>(c)]; }
bool is(char c, unsigned classes) { return (classOf(c) & classes) != 0; }
bool isSpace(char c) { return is(c, kSpace); }
bool isDigit(char c) { return is(c, kDigit); }
bool isUpper(char c) { return is(c, kUpper); }
bool isLetter(char c) { return is(c, kUpper | kLower); }
bool isWordChar(char c) { return is(c, kWord); }
char toLower(char c) { return isUpper(c) ? static_cast<char>(c - 'A' + 'a') : c; }

bool equalsNoCase(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (toLower(a[i]) != toLower(b[i])) return false;
    return true;
}

bool wordLevel(std::string_view word, Level& level) {
    if (word.empty() || word.size() > kLongestWord) return false;
    for (const Word& w : kWords) {
        if (equalsNoCase(word, w.text)) {
            level = w.level;
            return true;
        }
    }
    return false;
}

bool letterLevel(char c, Level& level) {
    for (const Letter& l : kLetters) {
        if (l.letter == c) {
            level = l.level;
            return true;
        }
    }
    return false;
}

bool isLevelKey(std::string_view key) {
    for (std::string_view k : kLevelKeys)
        if (equalsNoCase(key, k)) return true;
    return false;
}

// A number in a level field: 0 to 7 is a syslog severity, and 10 to 60 in tens the scale
// of JSON loggers (trace 10, debug 20, info 30, warn 40, error 50, fatal 60).
bool numberLevel(unsigned value, Level& level) {
    if (value <= 7) {
        level = static_cast<Level>(value);
        return true;
    }
    static constexpr Level kTens[] = {Level::Debug,   Level::Debug, Level::Info,
                                      Level::Warning, Level::Error, Level::Critical};
    if (value % 10 != 0 || value < 10 || value > 60) return false;
    level = kTens[value / 10 - 1];
    return true;
}

// The value of a level field, a name or a number.
bool valueLevel(std::string_view value, Level& level) {
    if (!value.empty() && value.size() <= 3 && isDigit(value[0])) {
        unsigned number = 0;
        for (const char c : value) {
            if (!isDigit(c)) return false;
            number = number * 10 + static_cast<unsigned>(c - '0');
        }
        return numberLevel(number, level);
    }
    return wordLevel(value, level);
}

std::size_t skipSpaces(std::string_view text, std::size_t pos) {
    while (pos < text.size() && isSpace(text[pos])) ++pos;
    return pos;
}

std::size_t tokenEnd(std::string_view text, std::size_t pos) {
    while (pos < text.size() && !isSpace(text[pos])) ++pos;
    return pos;
}

std::size_t letterRunEnd(std::string_view text, std::size_t pos) {
    while (pos < text.size() && isLetter(text[pos])) ++pos;
    return pos;
}

// The position of `closer` within kMaxBracket bytes after `open`, npos when none.
std::size_t findCloser(std::string_view text, std::size_t open, char closer) {
    const std::size_t last = text.size() - open > kMaxBracket ? open + kMaxBracket : text.size();
    for (std::size_t i = open + 1; i < last; ++i)
        if (text[i] == closer) return i;
    return npos;
}

// A date or time field: digits with "-/:.,", "T" and "Z" ("2026/11/25", "10:00:00.123",
// "2026-11-25T10:00:00.123+01:00"), or a zone offset "+0100".
bool isTimeToken(std::string_view token) {
    if (token.empty()) return false;
    std::size_t i = 0;
    if ((token[0] == '+' || token[0] == '-') && token.size() > 1) i = 1;
    if (!isDigit(token[i])) return false;
    bool separated = i == 1;
    for (; i < token.size(); ++i) {
        const char c = token[i];
        if (!is(c, kDigit | kTime | kStampLetter)) return false;
        separated = separated || is(c, kTime);
    }
    return separated;
}

bool isNumberToken(std::string_view token) {
    if (token.empty()) return false;
    for (const char c : token)
        if (!isDigit(c)) return false;
    return true;
}

// "Nov", "Wed": the names in "Nov 25 08:09:45" and "Wed Nov 25 10:00:00 2026".
bool isCalendarName(std::string_view token) {
    if (token.size() != 3) return false;
    static constexpr std::string_view kNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun", "Jul",
                                                  "Aug", "Sep", "Oct", "Nov", "Dec", "Mon", "Tue",
                                                  "Wed", "Thu", "Fri", "Sat", "Sun"};
    for (std::string_view n : kNames)
        if (token == n) return true;
    return false;
}

// A syslog tag ending at its colon: "app:", "app[123]:", followed by a space or the end.
// Returns the position after the colon, npos when `pos` starts none.
std::size_t tagEnd(std::string_view text, std::size_t pos) {
    std::size_t i = pos;
    while (i < text.size() && !is(text[i], kTagStop)) ++i;
    if (i == pos || i >= text.size()) return npos;
    if (text[i] == '[') {
        const std::size_t open = i;
        ++i;
        while (i < text.size() && i - open <= kMaxPid && text[i] != ']' && !isSpace(text[i])) ++i;
        if (i >= text.size() || text[i] != ']') return npos;
        ++i;
    }
    if (i >= text.size() || text[i] != ':') return npos;
    ++i;
    return i == text.size() || isSpace(text[i]) ? i : npos;
}

// Where the scan of a line stands: the field it looks at and what it has passed.
struct Scan {
    std::string_view line;
    std::size_t pos = 0;
    std::size_t tokenEnd = 0;  // where the field's bytes up to the next space end
    unsigned tokenBytes = 0;   // the classes of those bytes, or-ed (all when not known)
    bool sawTime = false;      // a date or time was passed (since the syslog tag)
    bool afterTime = false;    // the field just passed was a date or time
    bool afterNumber = false;  // the field just passed was a plain number
    bool sawTag = false;       // the syslog "host app[pid]:" was passed
};

// ---- Labels: each looks at the field at scan.pos and, when it is a label, sets the level
// (Unknown for a structured line without a level field) and says so.

// The level word of the contents of a field opened by `open`: "ERROR", "WARN " (padded),
// "E" (not in parentheses, where "(C)" is no label), and in square brackets also a
// module's "core:error" or a timestamp then the word ("2026-11-25T10:00:00Z ERROR app").
bool bracketContentLevel(std::string_view content, char open, Level& level) {
    std::size_t begin = skipSpaces(content, 0);
    std::size_t end = content.size();
    while (end > begin && isSpace(content[end - 1])) --end;
    const std::string_view word = content.substr(begin, end - begin);
    if (word.size() == 1) return open != '(' && letterLevel(word[0], level);
    if (wordLevel(word, level)) return true;
    if (open != '[') return false;
    const std::size_t colon = word.rfind(':');
    if (colon != npos && colon > 0) {
        bool module = true;
        for (std::size_t i = 0; i < colon; ++i)
            module = module && (isWordChar(word[i]) || word[i] == '-');
        if (module && wordLevel(word.substr(colon + 1), level)) return true;
    }
    bool timed = false;
    for (std::size_t pos = begin; pos < end;) {
        const std::size_t stop = tokenEnd(content, pos);
        const std::string_view token = content.substr(pos, stop - pos);
        if (isTimeToken(token) || isCalendarName(token) || (timed && isNumberToken(token))) {
            timed = true;
            pos = skipSpaces(content, stop);
            continue;
        }
        if (!timed) return false;
        for (const char c : token)
            if (!isUpper(c)) return false;
        return wordLevel(token, level);
    }
    return false;
}

// "[ERROR]", "[WARN ]", "[E]", "<E>", "(warn)", "[core:error]", "[<time> ERROR app]".
bool bracketLabel(const Scan& s, Level& level) {
    const char open = s.line[s.pos];
    const char closer = open == '[' ? ']' : open == '<' ? '>' : open == '(' ? ')' : '\0';
    if (closer == '\0') return false;
    const std::size_t close = findCloser(s.line, s.pos, closer);
    if (close == npos) return false;
    return bracketContentLevel(s.line.substr(s.pos + 1, close - s.pos - 1), open, level);
}

// A level word in any case with a colon right after it: "ERROR:root:", "error: ...",
// "Warning: ...", "FATAL:  ...".
bool colonLabel(const Scan& s, Level& level) {
    const std::size_t end = letterRunEnd(s.line, s.pos);
    if (end >= s.line.size() || s.line[end] != ':') return false;
    return wordLevel(s.line.substr(s.pos, end - s.pos), level);
}

// A level word in capitals as a whole field: "WARN [main] ...", "ERROR in app: ...".
bool upperLabel(const Scan& s, Level& level) {
    const std::size_t end = letterRunEnd(s.line, s.pos);
    if (end < s.line.size() && !isSpace(s.line[end])) return false;
    for (std::size_t i = s.pos; i < end; ++i)
        if (!isUpper(s.line[i])) return false;
    return wordLevel(s.line.substr(s.pos, end - s.pos), level);
}

// Android's "E/Tag(123): ..." and "W/Tag   : ...": a letter, "/", a tag of at least two
// characters, an optional "(pid)", then a colon.
bool androidLabel(const Scan& s, Level& level) {
    const std::string_view line = s.line;
    std::size_t i = s.pos + 2;
    if (i >= line.size() || line[s.pos + 1] != '/') return false;
    const std::size_t tag = i;
    while (i < line.size() && !isSpace(line[i]) && line[i] != ':' && line[i] != '(') ++i;
    if (i - tag < 2) return false;
    i = skipSpaces(line, i);
    if (i < line.size() && line[i] == '(') {
        const std::size_t close = findCloser(line, i, ')');
        if (close == npos || close - i > kMaxPid) return false;
        i = skipSpaces(line, close + 1);
    }
    if (i >= line.size() || line[i] != ':') return false;
    return letterLevel(line[s.pos], level);
}

// "E1125 10:00:00.123456 ...": a letter, month and day, a space, then the time.
bool stampedLetterLabel(const Scan& s, Level& level) {
    const std::string_view line = s.line;
    const std::size_t p = s.pos;
    if (line.size() - p < 9) return false;
    for (std::size_t i = 1; i <= 4; ++i)
        if (!isDigit(line[p + i])) return false;
    if (line[p + 5] != ' ' || !isDigit(line[p + 6]) || !isDigit(line[p + 7]) || line[p + 8] != ':')
        return false;
    return letterLevel(line[p], level);
}

// A lone capital letter after the numbers that follow a timestamp, as in Android's
// "11-25 10:00:00.123  1234  5678 E Tag: ...".
bool letterAfterNumberLabel(const Scan& s, Level& level) {
    if (!s.afterNumber) return false;
    const std::size_t next = s.pos + 1;
    if (next < s.line.size() && !isSpace(s.line[next])) return false;
    return letterLevel(s.line[s.pos], level);
}

// The value starting at `pos` of a key=value or JSON field: a quoted string (the text
// between the quotes, escapes left as they are; up to the end when the quote is not
// closed) or the bytes up to the next space (in JSON also up to ",", "}" or "]").
// Returns the position after the value.
std::size_t readValue(std::string_view text, std::size_t pos, bool json, std::string_view& value) {
    if (pos < text.size() && text[pos] == '"') {
        std::size_t i = pos + 1;
        while (i < text.size() && text[i] != '"') i += text[i] == '\\' ? 2 : 1;
        const std::size_t end = i < text.size() ? i : text.size();
        value = text.substr(pos + 1, end - pos - 1);
        return end < text.size() ? end + 1 : end;
    }
    std::size_t i = pos;
    while (i < text.size() && !isSpace(text[i]) &&
           !(json && (text[i] == ',' || text[i] == '}' || text[i] == ']')))
        ++i;
    value = text.substr(pos, i - pos);
    return i;
}

bool isKeyChar(char c) { return is(c, kKey); }

// key=value pairs: "level=warn", "lvl=err", "time=... level=3 msg=...". The first level
// key with a level value decides; a line of pairs without one states no level.
bool keyValueLabel(const Scan& s, Level& level) {
    const std::string_view line = s.line;
    std::size_t pos = s.pos;
    bool pairs = false;
    while (pos < line.size()) {
        std::size_t eq = pos;
        while (eq < line.size() && isKeyChar(line[eq])) ++eq;
        if (eq == pos || eq >= line.size() || line[eq] != '=') break;
        std::string_view value;
        const std::size_t next = readValue(line, eq + 1, false, value);
        if (isLevelKey(line.substr(pos, eq - pos)) && valueLevel(value, level)) return true;
        pairs = true;
        pos = skipSpaces(line, next);
    }
    if (!pairs) return false;
    level = Level::Unknown;
    return true;
}

// A JSON object: the first of its own (not nested) level keys with a level value, given
// as a string or a number, decides: {"level":"error"}, {"severity": "warn"}, {"lvl": 3},
// {"PRIORITY":"3"}.
bool jsonLabel(const Scan& s, Level& level) {
    const std::string_view line = s.line;
    if (line[s.pos] != '{') return false;
    level = Level::Unknown;
    int depth = 0;
    std::size_t i = s.pos;
    while (i < line.size()) {
        const char c = line[i];
        if (c == '"') {
            std::string_view key;
            i = readValue(line, i, true, key);
            const std::size_t colon = skipSpaces(line, i);
            if (depth != 1 || colon >= line.size() || line[colon] != ':') continue;
            i = skipSpaces(line, colon + 1);
            if (!isLevelKey(key)) continue;
            std::string_view value;
            i = readValue(line, i, true, value);
            if (valueLevel(value, level)) return true;
            continue;
        }
        if (c == '{' || c == '[') {
            ++depth;
        } else if (c == '}' || c == ']') {
            if (--depth <= 0) break;
        }
        ++i;
    }
    level = Level::Unknown;
    return true;
}

// Which bytes may start a field that a rule accepts, and which the field must hold: a rule
// is only tried on a field whose first byte it allows and that holds the bytes it needs
// (it would find nothing on any other). A shortcut only: the result is the same as
// trying every rule (ofLineTryingEveryRule, the tests compare the two).
constexpr bool anyByte(char) { return true; }
constexpr bool bracketByte(char c) { return c == '[' || c == '<' || c == '('; }
constexpr bool letterByte(char c) { return upperByte(c) || lowerByte(c); }
constexpr bool levelLetterByte(char c) {
    for (const Letter& l : kLetters)
        if (l.letter == c) return true;
    return false;
}
constexpr bool jsonByte(char c) { return c == '{'; }
constexpr bool groupByte(char c) { return c == '['; }
// A date or time starts with a digit or a sign, a month or day name with a capital.
constexpr bool timeStartByte(char c) {
    return digitByte(c) || c == '+' || c == '-' || upperByte(c);
}

// The labels, tried in this order on each field; the first that matches decides.
struct LabelRule {
    bool (*match)(const Scan&, Level&);
    bool (*mayStartWith)(char);
    unsigned needs;  // byte classes the field must hold (its word's colon, its pair's '=')
};
constexpr LabelRule kLabelRules[] = {
    {bracketLabel, bracketByte, 0},                // [ERROR] [WARN ] [E] <E> (warn) [core:error]
    {colonLabel, letterByte, kColon},              // ERROR:root:  error:  Warning:  (any case)
    {upperLabel, upperByte, 0},                    // ERROR  WARN  INFO  (capitals, a whole field)
    {androidLabel, levelLetterByte, 0},            // E/Tag(123):  W/Tag:
    {stampedLetterLabel, levelLetterByte, 0},      // E1125 10:00:00.123456
    {letterAfterNumberLabel, levelLetterByte, 0},  // <time> 1234 5678 E Tag:
    {keyValueLabel, keyByte, kEquals},             // level=warn lvl=err level=3
    {jsonLabel, jsonByte, 0},  // {"level":"error"} {"severity":"warn"} {"lvl":3}
};

// ---- Header fields: what may come before the label. Each looks at the field at scan.pos
// and, when it is one it can pass, returns the position after it (npos otherwise).

enum class Field { Time, Number, Other, Tag };

std::size_t timeField(const Scan& s) {
    const std::size_t end = s.tokenEnd;
    const std::string_view token = s.line.substr(s.pos, end - s.pos);
    return isTimeToken(token) || isCalendarName(token) ? end : npos;
}

// A plain number after a timestamp: a process or thread id, a year, a connection number.
std::size_t numberField(const Scan& s) {
    if (!s.sawTime) return npos;
    const std::size_t end = s.tokenEnd;
    return isNumberToken(s.line.substr(s.pos, end - s.pos)) ? end : npos;
}

// A time zone right after the time: "UTC", "CEST".
std::size_t zoneField(const Scan& s) {
    if (!s.afterTime) return npos;
    const std::size_t end = s.tokenEnd;
    if (end - s.pos > 5) return npos;
    for (std::size_t i = s.pos; i < end; ++i)
        if (!isUpper(s.line[i])) return npos;
    return end;
}

// A bracketed field that is no label: "[main]", "[1234]", "[pid 12:tid 34]", "[Wed Nov 25
// 10:00:00 2026]".
std::size_t groupField(const Scan& s) {
    if (s.line[s.pos] != '[') return npos;
    const std::size_t close = findCloser(s.line, s.pos, ']');
    return close == npos ? npos : close + 1;
}

// The syslog "host app[pid]:" or "app:", once.
std::size_t tagField(const Scan& s) {
    if (s.sawTag) return npos;
    // A tag at the field ends with a colon inside it.
    const std::size_t tag = (s.tokenBytes & kColon) != 0 ? tagEnd(s.line, s.pos) : npos;
    if (tag != npos) return tag;
    const std::size_t host = s.tokenEnd;
    const std::size_t next = skipSpaces(s.line, host);
    if (next == host || s.line[host - 1] == ':') return npos;
    return tagEnd(s.line, next);
}

// A "-" or "|" between fields, and a field followed by one: "<time> - app - ERROR - ...",
// "<time> | ERROR | ...".
std::size_t separatorField(const Scan& s) {
    const auto isSeparator = [&](std::size_t pos) {
        const char c = s.line[pos];
        return (c == '-' || c == '|') && (pos + 1 == s.line.size() || isSpace(s.line[pos + 1]));
    };
    if (isSeparator(s.pos)) return s.pos + 1;
    const std::size_t end = s.tokenEnd;
    const std::size_t next = skipSpaces(s.line, end);
    return next > end && next < s.line.size() && isSeparator(next) ? end : npos;
}

struct FieldRule {
    std::size_t (*pass)(const Scan&);
    Field kind;
    bool (*mayStartWith)(char);
};
constexpr FieldRule kFieldRules[] = {
    {timeField, Field::Time, timeStartByte},  // 2026/11/25 10:00:00.123  Nov 25  2026-11-25T10Z
    {numberField, Field::Number, digitByte},  // 1234 after a time
    {zoneField, Field::Other, upperByte},     // UTC after a time
    {groupField, Field::Other, groupByte},    // [main] [1234]
    {tagField, Field::Tag, anyByte},          // host app[123]:
    {separatorField, Field::Other, anyByte},  // - |  and a field before one
};

// Per first byte of a field, one bit per rule (its place in the list) that may accept it.
struct RuleGates {
    std::uint8_t labels[256] = {};
    std::uint8_t fields[256] = {};
};
static_assert(std::size(kLabelRules) <= 8 && std::size(kFieldRules) <= 8, "one byte of gates");

constexpr RuleGates makeRuleGates() {
    RuleGates gates;
    for (int i = 0; i < 256; ++i) {
        const char c = static_cast<char>(i);
        for (std::size_t r = 0; r < std::size(kLabelRules); ++r)
            if (kLabelRules[r].mayStartWith(c))
                gates.labels[i] |= static_cast<std::uint8_t>(1u << r);
        for (std::size_t r = 0; r < std::size(kFieldRules); ++r)
            if (kFieldRules[r].mayStartWith(c))
                gates.fields[i] |= static_cast<std::uint8_t>(1u << r);
    }
    return gates;
}
constexpr RuleGates kRuleGates = makeRuleGates();
constexpr unsigned kEveryLabel = (1u << std::size(kLabelRules)) - 1;
constexpr unsigned kEveryField = (1u << std::size(kFieldRules)) - 1;

// "<3>" at the very start: a syslog or kernel priority, 0 to 191.
bool priorityPrefix(std::string_view line, Level& level) {
    if (line.size() < 3 || line[0] != '<') return false;
    int priority = 0;
    std::size_t i = 1;
    while (i < line.size() && i <= 3 && isDigit(line[i]))
        priority = priority * 10 + (line[i++] - '0');
    if (i == 1 || i >= line.size() || line[i] != '>') return false;
    level = fromPriority(priority);
    return level != Level::Unknown;
}

// The collector's own stamp "YYYY/MM/DD hh:mm:ss" at the start of `line` (every stamp the
// converter rewrote has this form), the time possibly going on in date and time bytes
// (".123"), then a space or the end: two date and time fields, which no label rule
// accepts and the time field passes. Returns where the second field ends, 0 when `line`
// does not start so.
std::size_t convertedStampEnd(std::string_view line) {
    constexpr std::size_t kLength = 19;  // "YYYY/MM/DD hh:mm:ss"
    if (line.size() < kLength) return 0;
    const char* const p = line.data();
    const auto digit = [p](std::size_t i) { return static_cast<unsigned char>(p[i] - '0') < 10; };
    if (p[4] != '/' || p[7] != '/' || p[10] != ' ' || p[13] != ':' || p[16] != ':') return 0;
    if (!(digit(0) && digit(1) && digit(2) && digit(3) && digit(5) && digit(6) && digit(8) &&
          digit(9) && digit(11) && digit(12) && digit(14) && digit(15) && digit(17) && digit(18)))
        return 0;
    std::size_t end = kLength;
    while (end < line.size() && is(line[end], kDigit | kTime | kStampLetter)) ++end;
    return end == line.size() || isSpace(line[end]) ? end : 0;
}

// The level `line` states; with `everyRule`, every rule is tried on every field.
Level scanLine(std::string_view line, bool everyRule) {
    Level level = Level::Unknown;
    if (priorityPrefix(line, level)) return level;
    Scan s;
    s.line = line;
    int field = 0;
    if (!everyRule) {
        s.pos = convertedStampEnd(line);
        if (s.pos != 0) {
            field = 2;
            s.sawTime = s.afterTime = true;
        }
    }
    for (; field < kMaxFields; ++field) {
        s.pos = skipSpaces(line, s.pos);
        if (s.pos >= line.size()) break;
        std::size_t token = s.pos;  // in locals: s, handed to the rules, lives in memory
        unsigned bytes = everyRule ? kAnyClass : 0;
        for (; token < line.size(); ++token) {
            const unsigned classes = classOf(line[token]);
            if ((classes & kSpace) != 0) break;
            bytes |= classes;
        }
        s.tokenEnd = token;
        s.tokenBytes = bytes;
        const auto first = static_cast<unsigned char>(line[s.pos]);
        const unsigned labels = everyRule ? kEveryLabel : kRuleGates.labels[first];
        for (unsigned rules = labels; rules != 0; rules &= rules - 1) {
            const LabelRule& rule = kLabelRules[__builtin_ctz(rules)];
            if ((s.tokenBytes & rule.needs) == rule.needs && rule.match(s, level)) return level;
        }
        const unsigned fields = everyRule ? kEveryField : kRuleGates.fields[first];
        std::size_t end = npos;
        Field kind = Field::Other;
        for (unsigned rules = fields; rules != 0 && end == npos; rules &= rules - 1) {
            const FieldRule& rule = kFieldRules[__builtin_ctz(rules)];
            end = rule.pass(s);
            kind = rule.kind;
        }
        if (end == npos) break;
        s.pos = end;
        s.sawTime = (s.sawTime || kind == Field::Time) && kind != Field::Tag;
        s.afterTime = kind == Field::Time;
        s.afterNumber = kind == Field::Number;
        s.sawTag = s.sawTag || kind == Field::Tag;
    }
    return Level::Unknown;
}

}  // namespace

Level ofLine(std::string_view line) { return scanLine(line, false); }

Level ofLineTryingEveryRule(std::string_view line) { return scanLine(line, true); }

std::uint16_t maskOf(std::string_view text) {
    std::uint16_t mask = 0;
    std::size_t pos = 0;
    while (pos < text.size()) {
        const void* found = std::memchr(text.data() + pos, '\n', text.size() - pos);
        const std::size_t end =
            found ? static_cast<std::size_t>(static_cast<const char*>(found) - text.data())
                  : text.size();
        mask |= bit(ofLine(text.substr(pos, end - pos)));
        pos = end + 1;
    }
    return mask;
}

Level fromPriority(int priority) {
    if (priority < 0 || priority > 191) return Level::Unknown;
    return static_cast<Level>(priority % 8);
}

const char* name(Level level) {
    static const char* const kNames[] = {"emerg",  "alert", "crit",  "error",  "warning",
                                         "notice", "info",  "debug", "unknown"};
    const auto index = static_cast<std::size_t>(level);
    return index < sizeof(kNames) / sizeof(kNames[0]) ? kNames[index] : "unknown";
}

bool parse(std::string_view text, Level& level) {
    if (equalsNoCase(text, "unknown")) {
        level = Level::Unknown;
        return true;
    }
    return wordLevel(text, level);
}

}  // namespace DeviceLogSeverity
