// SPDX-License-Identifier: MIT
// DeviceLogNames: how a remote log is named. A log is known by its id (the device's MAC
// address without colons, "-", the last component of the log's name) and written to the
// file deviceId + id in the logs folder. Also the checks that keep a file name made from
// remote input one plain component of that folder. Pure functions, any thread.
#pragma once

#include <cstddef>
#include <string>

#include "StdString.h"

namespace DeviceLogNames {

// Longest file name accepted for a remote log, in bytes: the file system's 255 less the
// ".back" that rotation appends, so that rotation can always rename the file.
constexpr std::size_t kMaxFileName = 250;

// `macAddr` without any ":", then "-", then the text of `logName` after its last "/" or
// "\" (all of it when it has neither, "" when it ends in one).
CStdStr logId(const CStdStr& macAddr, const CStdStr& logName);

// The file name of a log: `deviceId` immediately followed by `logId`.
CStdStr fileName(const CStdStr& deviceId, const CStdStr& logId);

// Whether `text` holds "/" or "\".
bool hasSeparator(const CStdStr& text);

// Whether `text` holds a control character (bytes 0x00 to 0x1F and 0x7F: NUL, line
// breaks, escape sequences), which no file name made from remote input may carry.
bool hasControlCharacter(const CStdStr& text);

// Whether `name` is usable as a remote log's file name: not empty, not starting with "."
// (no hidden files, no "." or ".."), no separator, no control character, at most
// kMaxFileName bytes.
bool isPlainFileName(const CStdStr& name);

// The device part of a log file name, for grouping a device's logs: the name up to and
// including twelve hex digits (a MAC address) that a "-" follows; else, for a syslog
// sender's "<sender>-<application>", the name before its first "-"; else the whole name.
std::string deviceOfFile(const std::string& fileName);

}  // namespace DeviceLogNames
