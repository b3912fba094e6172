// SPDX-License-Identifier: MIT
// LogsIndex: nimb-logs's access to the collector's index of written pieces
// ("<logs folder>/history/index.sqlite"): opening it for queries with a message a person
// can act on when it is missing or unreadable, and rebuilding it from the files while no
// collector runs. One thread.
#pragma once

#include <iosfwd>
#include <memory>
#include <string>

#include "DeviceLogIndex.h"

namespace LogsIndex {

// The index of `logsDir` open for reading, after checking that it is there and that its
// tables read; null with `error` set to what to print ("no index at <path>: ..." when
// there is none).
std::unique_ptr<DeviceLogIndex> openForReading(const std::string& logsDir, std::string& error);

// The process that has the index of `logsDir` open now: its pid, -1 when the pid is not
// known, 0 when none has. Every SQLite connection to a database in WAL mode holds a
// shared lock on the dead-man-switch byte (offset 128) of the "-shm" file for as long as
// it is open; this asks for the lock a writer would need there (F_GETLK), taking none.
long long openedBy(const std::string& logsDir);

// Rebuilds the index of `logsDir` from the logs and their ".back" files: refuses while
// another process has it open; the old database is moved aside and put back when the
// new one cannot be made. Prints what it did on `out`, problems on `err` (prefixed
// "nimb-logs: "); returns the exit status (0 rebuilt, 1 refused or failed).
int reindex(const std::string& logsDir, std::ostream& out, std::ostream& err);

}  // namespace LogsIndex
