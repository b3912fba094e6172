// SPDX-License-Identifier: MIT
// DeviceLogSeverity: which severity a line of device log text states, so that the index
// can record per written piece which severities its lines hold. The level is read from
// the label where loggers put it: at the start of the line, or of its message after a
// timestamp, a syslog "host app[pid]:" and similar header fields ("[ERROR]", "WARN",
// "error:", "E/Tag:", "<3>", "level=warn", {"level":"error"}). A level word further on in
// the text ("0 errors", "no error") does not count. A byte scan without allocation that
// reads nothing outside the given text, whatever its bytes. Pure functions, any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace DeviceLogSeverity {

// The syslog severities, numbered as syslog numbers them, and Unknown for a line that
// states none. A fatal error (one program giving up) is Critical; Emergency is kept for
// emergency and panic labels (the whole system unusable).
enum class Level : std::uint8_t {
    Emergency = 0,
    Alert,
    Critical,
    Error,
    Warning,
    Notice,
    Info,
    Debug,
    Unknown
};

// The level one line (without its newline; a trailing '\r' is ignored) states, Unknown
// when it states none.
Level ofLine(std::string_view line);

// The same level found the long way, every label and header-field rule tried on every
// field without the shortcuts ofLine takes: the reference that ofLine is checked against.
Level ofLineTryingEveryRule(std::string_view line);

// One bit per level (bit 1 << level) for every line of `text`: lines end at '\n' and a
// last line without one counts too, so "" has no line and gives 0. A blank line states
// no level and sets the Unknown bit.
std::uint16_t maskOf(std::string_view text);

// The bit of `level` in a mask.
constexpr std::uint16_t bit(Level level) {
    return static_cast<std::uint16_t>(1u << static_cast<unsigned>(level));
}

// The level a syslog priority value (facility * 8 + severity, 0 to 191) carries, Unknown
// for a value outside that range.
Level fromPriority(int priority);

// The lower-case name of `level`: "emerg", "alert", "crit", "error", "warning", "notice",
// "info", "debug" or "unknown" (also for a value outside the enum).
const char* name(Level level);

// The level `text` names, without regard to case: the names above and the usual synonyms
// (emergency, panic, fatal, critical, err, severe, warn, information, trace, verbose and
// the three-letter forms ftl, wrn, inf, dbg, trc), and "unknown" for Unknown. False,
// `level` untouched, for any other text.
bool parse(std::string_view text, Level& level);

}  // namespace DeviceLogSeverity
