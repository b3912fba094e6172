// SPDX-License-Identifier: MIT
#include "LogSearch.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include <re2/re2.h>

#include "LogText.h"
#include "SafeFolder.h"

namespace LogSearch {

namespace {

using Clock = std::chrono::steady_clock;
constexpr std::size_t kSlice = 1 << 20;       // the deadline is checked between slices
constexpr std::size_t kLookBack = 64 * 1024;  // how far up a line's stamp is looked for

// Finds the next match in [from, text.size()) restricted to one line (matches never span
// a newline). Either a substring or an RE2 program.
class Matcher {
public:
    explicit Matcher(const Query& query) : needle_(query.pattern) {
        if (!query.regex) return;
        RE2::Options options;
        options.set_log_errors(false);
        options.set_never_nl(true);
        options.set_max_mem(8 << 20);
        // Checked as given, so that a message quotes the user's own text; then matched
        // in multi-line mode, where ^ and $ match at each line's start and end.
        re_ = std::make_unique<RE2>(query.pattern, options);
        if (re_->ok()) re_ = std::make_unique<RE2>("(?m)" + query.pattern, options);
    }

    std::string error() const {
        if (!re_ || re_->ok()) return {};
        if (re_->error_code() == RE2::ErrorPatternTooLarge) {
            return "regular expression too costly: " + re_->error();
        }
        return "invalid regular expression: " + re_->error();
    }

    // The match in text[from, end) as [begin, stop); false when none. An empty regex
    // match counts as one character so that scanning always moves on.
    bool find(std::string_view text, std::size_t from, std::size_t end, std::size_t& begin,
              std::size_t& stop) const {
        if (!re_) {
            const void* at = memmem(text.data() + from, end - from, needle_.data(), needle_.size());
            if (at == nullptr) return false;
            begin = static_cast<std::size_t>(static_cast<const char*>(at) - text.data());
            stop = begin + needle_.size();
            return true;
        }
        re2::StringPiece match;
        if (!re_->Match(re2::StringPiece(text.data(), text.size()), from, end, RE2::UNANCHORED,
                        &match, 1)) {
            return false;
        }
        begin = static_cast<std::size_t>(match.data() - text.data());
        stop = begin + match.size();
        return true;
    }

private:
    std::string needle_;
    std::unique_ptr<RE2> re_;
};

std::string cut(std::string_view line, std::size_t limit) {
    return std::string(line.substr(0, std::min(limit, line.size())));
}

std::size_t lineStart(std::string_view text, std::size_t at) {
    const std::size_t nl = at == 0 ? std::string_view::npos : text.rfind('\n', at - 1);
    return nl == std::string_view::npos ? 0 : nl + 1;
}

std::size_t lineEnd(std::string_view text, std::size_t at) {
    const std::size_t nl = text.find('\n', at);
    return nl == std::string_view::npos ? text.size() : nl;
}

// The time of the line at `start`: its own stamp, or the nearest stamped line above.
bool lineTime(std::string_view text, std::size_t start, LogText::StampReader& stamps,
              std::int64_t& seconds) {
    const std::size_t floor = start > kLookBack ? start - kLookBack : 0;
    for (std::size_t at = start;;) {
        if (stamps.read(text.substr(at, lineEnd(text, at) - at), seconds)) return true;
        if (at <= floor || at == 0) return false;
        at = lineStart(text, at - 1);
    }
}

// The parts of one hit line: every match in it, cut to kMaxLineBytes around the first.
std::vector<std::string> markLine(const Matcher& matcher, std::string_view text, std::size_t start,
                                  std::size_t end, std::size_t firstBegin) {
    std::size_t shownFrom = start;
    if (end - start > kMaxLineBytes && firstBegin - start > kMaxLineBytes / 4) {
        shownFrom = firstBegin - kMaxLineBytes / 4;
    }
    const std::size_t shownTo = std::min(end, shownFrom + kMaxLineBytes);
    std::vector<std::string> parts;
    std::size_t at = shownFrom;
    std::size_t begin = 0, stop = 0;
    while (at < shownTo && matcher.find(text, at, shownTo, begin, stop)) {
        if (stop == begin) stop = begin + 1;
        parts.emplace_back(text.substr(at, begin - at));
        parts.emplace_back(text.substr(begin, std::min(stop, shownTo) - begin));
        at = stop;
    }
    parts.emplace_back(text.substr(std::min(at, shownTo), shownTo - std::min(at, shownTo)));
    if (parts.size() == 1) parts.insert(parts.begin(), 2, std::string());
    return parts;
}

// Searches one file's text; false once the search must stop (hits or time).
bool searchText(const Matcher& matcher, const Query& query, std::string_view text,
                std::uint64_t base, Clock::time_point deadline, FileHits& out, Result& result,
                const Accept* accept = nullptr, Clock::time_point* countUntil = nullptr) {
    const bool ranged = query.from != std::numeric_limits<std::int64_t>::min() ||
                        query.to != std::numeric_limits<std::int64_t>::max();
    LogText::StampReader stamps;
    std::size_t at = 0;
    while (at < text.size()) {
        const Clock::time_point now = Clock::now();
        if (now > deadline) {
            result.timedOut = true;
            return false;
        }
        if (result.more && countUntil != nullptr && now > *countUntil) {
            result.countComplete = false;
            return false;
        }
        const std::size_t sliceEnd = lineEnd(text, std::min(text.size(), at + kSlice));
        std::size_t begin = 0, stop = 0;
        while (at < sliceEnd && matcher.find(text, at, sliceEnd, begin, stop)) {
            const std::size_t start = lineStart(text, begin);
            const std::size_t end = lineEnd(text, begin);
            at = end + 1;
            std::int64_t when = 0;
            int level = -1;
            if (accept != nullptr) {
                if (!(*accept)(base + start, text.substr(start, end - start), level)) continue;
            } else if (ranged && (!lineTime(text, start, stamps, when) || when < query.from ||
                                  when > query.to)) {
                continue;
            }
            if (result.hitCount == query.maxHits) {
                if (!query.countPastCap || countUntil == nullptr) {
                    result.more = true;
                    return false;
                }
                if (!result.more) *countUntil = Clock::now() + query.countBudget;
                result.more = true;
                ++result.matchCount;
                continue;
            }
            ++result.matchCount;
            Hit hit;
            hit.offset = base + start;
            hit.level = level;
            if (start > 0) {
                const std::size_t above = lineStart(text, start - 1);
                hit.before = cut(text.substr(above, start - 1 - above), kMaxContextBytes);
            }
            if (end < text.size()) {
                hit.after =
                    cut(text.substr(end + 1, lineEnd(text, end + 1) - end - 1), kMaxContextBytes);
            }
            hit.parts = markLine(matcher, text, start, end, begin);
            out.hits.push_back(std::move(hit));
            ++result.hitCount;
        }
        at = std::max(at, sliceEnd + 1);
    }
    return true;
}

}  // namespace

namespace {

// The reason a query is refused, "" when it is not.
std::string refusal(const Query& query, const Matcher& matcher) {
    if (query.pattern.empty()) return "empty search";
    if (query.pattern.size() > kMaxPatternBytes) return "search text longer than 1024 bytes";
    return matcher.error();
}

}  // namespace

class Searcher::Impl {
public:
    explicit Impl(const Query& query)
        : matcher(query.pattern.size() > kMaxPatternBytes ? Query{} : query),
          deadline(Clock::now() + query.budget) {}
    Matcher matcher;
    Clock::time_point deadline;
    Clock::time_point countUntil;  // set when the hits reach the cap
};

Searcher::Searcher(const Query& query) : impl_(std::make_unique<Impl>(query)), query_(query) {
    result_.error = refusal(query, impl_->matcher);
}

Searcher::~Searcher() = default;

bool Searcher::search(std::string_view text, std::uint64_t base, const Accept& accept,
                      FileHits& out) {
    if (!result_.error.empty()) return false;
    result_.bytesScanned += text.size();
    return searchText(impl_->matcher, query_, text, base, impl_->deadline, out, result_, &accept,
                      &impl_->countUntil);
}

Result run(const std::string& folder, const Query& query) {
    Result result;
    if (query.pattern.size() > kMaxPatternBytes) {
        result.error = "search text longer than 1024 bytes";
        return result;
    }
    const Matcher matcher(query);
    result.error = refusal(query, matcher);
    if (!result.error.empty()) return result;
    const Clock::time_point deadline = Clock::now() + query.budget;
    for (const std::string& file : query.files) {
        struct stat st {};
        const UniqueFd fd = SafeFolder::openRegular(folder, file, &st);
        if (!fd.valid()) continue;
        // A file last written before the range starts holds nothing inside it.
        if (st.st_mtim.tv_sec < query.from) continue;
        const auto size = static_cast<std::uint64_t>(st.st_size);
        const std::uint64_t from = size > kMaxFileScan ? size - kMaxFileScan : 0;
        std::string text;
        if (!SafeFolder::readAt(fd.get(), from, size - from, text)) continue;
        result.bytesScanned += text.size();
        ++result.filesScanned;
        FileHits hits;
        hits.file = file;
        const bool goOn = searchText(matcher, query, text, from, deadline, hits, result);
        if (!hits.hits.empty()) result.files.push_back(std::move(hits));
        if (!goOn) break;
    }
    return result;
}

}  // namespace LogSearch
