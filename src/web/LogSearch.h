// SPDX-License-Identifier: MIT
// LogSearch: finds a plain substring or a regular expression (RE2: linear time, no
// backtracking) in log files, line by line, with the lines around each hit and the
// matched pieces marked. Bounded in results and time; an optional server-time range
// keeps only lines whose stamp (or the stamp of the nearest stamped line above) lies
// inside it. Stateless apart from one query; any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <string_view>
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
    // Past maxHits, go on counting matches (not keeping them) for up to countBudget more
    // (within the budget), for a picture of where they all lie (Searcher only).
    bool countPastCap = false;
    std::chrono::milliseconds countBudget{1000};
};

// One matching line: `parts` alternate plain text and matched text, starting with plain
// text (possibly empty). Long lines are cut around the first match.
struct Hit {
    std::uint64_t offset = 0;  // of the line in its file
    std::string before;        // the line above, cut
    std::vector<std::string> parts;
    std::string after;  // the line below, cut
    int level = -1;     // the line's severity when the caller told it (0 to 8), else -1
};

struct FileHits {
    std::string file;
    std::string log;              // with the index: the log file the text belongs to
    std::int64_t generation = 0;  // and its generation
    std::vector<Hit> hits;
};

struct Result {
    std::string error;  // non-empty: the query was refused, nothing searched
    std::vector<FileHits> files;
    std::size_t hitCount = 0;
    bool more = false;           // stopped at maxHits (or went on only counting)
    bool timedOut = false;       // stopped at the time budget
    std::size_t matchCount = 0;  // matching lines found, kept or only counted
    bool countComplete = true;   // false: counting past maxHits stopped at countBudget
    std::uint64_t bytesScanned = 0;
    std::size_t filesScanned = 0;
    std::size_t filesSkipped = 0;  // history generations whose filter ruled the pattern out
};

constexpr std::size_t kMaxPatternBytes = 1024;
constexpr std::size_t kMaxLineBytes = 1024;          // of a hit line shown
constexpr std::size_t kMaxContextBytes = 300;        // of a context line shown
constexpr std::uint64_t kMaxFileScan = 16ull << 20;  // a larger file: its tail only

Result run(const std::string& folder, const Query& query);

// Whether a matching line counts: given its offset (as `base` + its place in the text)
// and its text; may set the line's level.
using Accept = std::function<bool(std::uint64_t offset, std::string_view line, int& level)>;

// One query over texts the caller reads (pieces the index points at): the pattern is
// compiled once, the time budget starts at construction. Query::files and the time
// range are not used; `accept` decides instead.
class Searcher {
public:
    explicit Searcher(const Query& query);
    ~Searcher();
    // Non-empty when the query is refused.
    const std::string& error() const { return result_.error; }
    // Searches `text` (the bytes at `base` of some file); false once the search must
    // stop (hits or time). Hits go to `out`.
    bool search(std::string_view text, std::uint64_t base, const Accept& accept, FileHits& out);
    Result& result() { return result_; }

private:
    class Impl;
    std::unique_ptr<Impl> impl_;
    Query query_;
    Result result_;
};

}  // namespace LogSearch
