// SPDX-License-Identifier: MIT
// LogSearch: finds a plain substring or a regular expression (RE2: linear time, no
// backtracking) in log files, line by line, with the lines around each hit and the
// matched pieces marked. Bounded in results and time; an optional server-time range
// keeps only lines whose stamp (or the stamp of the nearest stamped line above) lies
// inside it. Stateless apart from one query; any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace LogSearch {

struct Query {
    std::string pattern;
    bool regex = false;
    std::vector<std::string> files;  // in this order, each a plain name in the folder
    std::int64_t from = std::numeric_limits<std::int64_t>::min();
    std::int64_t to = std::numeric_limits<std::int64_t>::max();
    std::size_t maxHits = 200;
    std::chrono::milliseconds budget{5000};
};

// One matching line: `parts` alternate plain text and matched text, starting with plain
// text (possibly empty). Long lines are cut around the first match.
struct Hit {
    std::uint64_t offset = 0;  // of the line in its file
    std::string before;        // the line above, cut
    std::vector<std::string> parts;
    std::string after;  // the line below, cut
};

struct FileHits {
    std::string file;
    std::vector<Hit> hits;
};

struct Result {
    std::string error;  // non-empty: the query was refused, nothing searched
    std::vector<FileHits> files;
    std::size_t hitCount = 0;
    bool more = false;      // stopped at maxHits
    bool timedOut = false;  // stopped at the time budget
    std::uint64_t bytesScanned = 0;
    std::size_t filesScanned = 0;
};

constexpr std::size_t kMaxPatternBytes = 1024;
constexpr std::size_t kMaxLineBytes = 1024;          // of a hit line shown
constexpr std::size_t kMaxContextBytes = 300;        // of a context line shown
constexpr std::uint64_t kMaxFileScan = 16ull << 20;  // a larger file: its tail only

Result run(const std::string& folder, const Query& query);

}  // namespace LogSearch
