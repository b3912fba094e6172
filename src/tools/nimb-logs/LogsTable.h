// SPDX-License-Identifier: MIT
// LogsTable: the tables nimb-logs prints (the folder listing, the history listing):
// values escaped to one line, aligned columns or tab-separated values. One thread.
#pragma once

#include <string>
#include <vector>

#include "StdString.h"

namespace LogsTable {

// Writes control characters and "\" as escapes ("\\", "\t", "\n", "\xHH") so that every
// entry stays on one line and tab-separated output keeps its columns.
CStdStr escapeValue(const CStdStr& value);

// Prints `rows` on standard output: columns padded to their widest value plus two
// blanks, counting UTF-8 characters, or with `tsv` separated by one tab.
void printRows(const std::vector<std::vector<CStdStr>>& rows, bool tsv);

// Lists the history of `logsDir` (only the logs of `device` when not empty: those whose
// file name starts with it and those the index saw the device announce itself in) as
// rows "log, moved, raw, compressed, path" (path relative to `logsDir`; compressed "-"
// while the generation waits for its compression), with a header row when `header`.
// Generations that cannot be read are named on standard error. Returns the exit status:
// 0 listed, 1 when the history folder cannot be read.
int printHistory(const std::string& logsDir, const std::string& device, bool tsv, bool header);

}  // namespace LogsTable
