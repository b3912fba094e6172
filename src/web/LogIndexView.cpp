// SPDX-License-Identifier: MIT
#include "LogIndexView.h"

#include <algorithm>
#include <cstring>
#include <set>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "DeviceLogHistoryFrames.h"
#include "DeviceLogLines.h"
#include "DeviceLogTrigrams.h"
#include "SafeFolder.h"

namespace {

using Level = DeviceLogSeverity::Level;
constexpr std::int64_t kBinSeconds = LogIndexView::kBinMinutes * 60;
// What one refresh of the activity reads of piece text at most; pieces beyond it are
// spread over their time range (their counts are then estimates until the next refresh).
constexpr std::uint64_t kCountBudget = 64ull << 20;
constexpr const char* kBack = ".back";
constexpr const char* kCompressed = ".zst";

bool endsWith(const std::string& text, const std::string& tail) {
    return text.size() > tail.size() &&
           text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// Calls `each(line, offset)` for every line of `text` (a last line without newline too).
template <typename Each>
void forLines(std::string_view text, Each each) {
    std::size_t at = 0;
    while (at < text.size()) {
        const std::size_t nl = text.find('\n', at);
        const std::size_t end = nl == std::string_view::npos ? text.size() : nl;
        each(text.substr(at, end - at), at);
        at = end + 1;
    }
}

// Opens the history generation `path`, or its compressed form; -1 when neither opens.
int openHistory(const std::string& path, bool& compressed, struct stat& st) {
    compressed = false;
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) {
        fd = open((path + kCompressed).c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
        compressed = true;
    }
    if (fd >= 0 && (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode))) {
        close(fd);
        return -1;
    }
    return fd;
}

bool readHistory(const std::string& path, std::uint64_t offset, std::size_t length,
                 std::string& out) {
    bool compressed = false;
    struct stat st {};
    const UniqueFd fd(openHistory(path, compressed, st));
    if (!fd.valid()) return false;
    if (!compressed) {
        std::string part;
        if (!SafeFolder::readAt(fd.get(), offset, length, part)) return false;
        out += part;
        return true;
    }
    std::vector<DeviceLogHistoryFrames::Frame> frames;
    std::string error;
    return DeviceLogHistoryFrames::readIndex(fd.get(), static_cast<std::uint64_t>(st.st_size),
                                             frames, error) &&
           DeviceLogHistoryFrames::readRange(fd.get(), frames, offset, length, out, error);
}

// "history/<log file>/<generation>" below `folder`, each component plain.
bool isHistoryPath(const std::string& folder, const std::string& path) {
    const std::string prefix = folder + "/" + DeviceLogIndex::kFolderName + "/";
    if (path.compare(0, prefix.size(), prefix) != 0) return false;
    const std::string inside = path.substr(prefix.size());
    const std::size_t slash = inside.find('/');
    return slash != std::string::npos && SafeFolder::isPlainName(inside.substr(0, slash)) &&
           SafeFolder::isPlainName(inside.substr(slash + 1));
}

}  // namespace

LogIndexView::LogIndexView(std::string folder) : folder_(std::move(folder)) {}

LogIndexView::Class LogIndexView::classOf(Level level) {
    if (level <= Level::Error) return kErrors;
    return level == Level::Warning ? kWarnings : kOthers;
}

Level LogIndexView::soleLevel(std::uint16_t mask) {
    mask &= static_cast<std::uint16_t>(~DeviceLogSeverity::bit(Level::Unknown));
    if (mask == 0 || (mask & (mask - 1)) != 0) return Level::Unknown;
    return static_cast<Level>(__builtin_ctz(mask));
}

bool LogIndexView::readPath(const std::string& folder, const std::string& path,
                            std::uint64_t offset, std::size_t length, std::string& out) {
    const std::string prefix = folder + "/";
    if (path.compare(0, prefix.size(), prefix) != 0) return false;
    const std::string rest = path.substr(prefix.size());
    if (SafeFolder::isPlainName(rest)) {
        const UniqueFd fd = SafeFolder::openRegular(folder, rest, nullptr);
        std::string part;
        if (!fd.valid() || !SafeFolder::readAt(fd.get(), offset, length, part)) return false;
        out += part;
        return true;
    }
    return isHistoryPath(folder, path) && readHistory(path, offset, length, out);
}

int LogIndexView::openGeneration(const std::string& folder, const std::string& path,
                                 bool& compressed) {
    struct stat st {};
    return isHistoryPath(folder, path) ? openHistory(path, compressed, st) : -1;
}

bool LogIndexView::mayHold(const std::string& folder, const std::string& path,
                           std::string_view needle) {
    if (needle.size() < 3 || !isHistoryPath(folder, path)) return true;
    bool compressed = false;
    struct stat st {};
    const UniqueFd fd(openHistory(path, compressed, st));
    if (!fd.valid() || !compressed) return true;
    std::vector<DeviceLogHistoryFrames::Frame> frames;
    std::string filter, error;
    if (!DeviceLogHistoryFrames::readIndex(fd.get(), static_cast<std::uint64_t>(st.st_size), frames,
                                           error, &filter)) {
        return true;
    }
    return DeviceLogTrigrams::mayHold(filter, needle);
}

bool LogIndexView::openLocked() {
    if (index_) return true;
    struct stat st {};
    if (stat(DeviceLogIndex::pathFor(folder_).c_str(), &st) != 0) return false;
    std::string error;
    index_ = DeviceLogIndex::openForReading(folder_, error);
    return index_ != nullptr;
}

bool LogIndexView::available() {
    PMutexLocker lock(mutex_);
    return openLocked();
}

std::vector<DeviceLogIndex::Piece> LogIndexView::query(const DeviceLogIndex::Query& query) {
    PMutexLocker lock(mutex_);
    if (!openLocked()) return {};
    return index_->query(query);
}

DeviceLogIndex::Series LogIndexView::series(long long since, long long until, long long step,
                                            std::size_t maxPoints,
                                            const std::vector<std::string>& names) {
    PMutexLocker lock(mutex_);
    if (!openLocked()) return {};
    return index_->series(since, until, step, maxPoints, names);
}

std::int64_t LogIndexView::lastPieceId() {
    PMutexLocker lock(mutex_);
    return openLocked() ? index_->lastPieceId() : 0;
}

void LogIndexView::count(const DeviceLogIndex::Piece& piece, std::uint64_t& budget,
                         Counted& counted) const {
    counted.bins.clear();
    counted.length = piece.length;
    const long long received = piece.firstReceivedMs / 1000;
    const Level sole = soleLevel(piece.severities);
    std::map<std::int64_t, std::array<std::uint32_t, kClasses>> bins;
    std::string text;
    if (piece.length <= budget &&
        readPath(folder_, piece.path, piece.offset, static_cast<std::size_t>(piece.length), text)) {
        budget -= piece.length;
        forLines(text, [&](std::string_view line, std::size_t) {
            if (line.empty()) return;
            Level level = DeviceLogSeverity::ofLine(line);
            if (level == Level::Unknown) level = sole;
            const long long when = DeviceLogLines::lineTime(line, received);
            ++bins[when / kBinSeconds][classOf(level)];
        });
    } else {
        // Not read: its lines spread evenly over its time range, in the class its mask
        // allows when it holds one, else among the others.
        counted.length = 0;  // counted again next time
        const std::int64_t first = piece.firstTime / kBinSeconds;
        const std::int64_t last = std::max<std::int64_t>(first, piece.lastTime / kBinSeconds);
        const std::int64_t span = std::min<std::int64_t>(last - first + 1, kBins * 2);
        for (std::int64_t i = 0; i < span; ++i) {
            const auto share = static_cast<std::uint32_t>(
                piece.lines / span + (i < static_cast<std::int64_t>(piece.lines % span) ? 1 : 0));
            bins[first + i][classOf(sole)] += share;
        }
    }
    counted.bins.assign(bins.begin(), bins.end());
}

std::map<std::string, LogIndexView::LogFacts> LogIndexView::facts(std::int64_t end) {
    std::map<std::string, LogFacts> result;
    PMutexLocker lock(mutex_);
    if (!openLocked()) return result;
    for (const DeviceLogIndex::LogInfo& log : index_->logs(false))
        result[log.file].source = log.source;
    const std::int64_t start = end - static_cast<std::int64_t>(kBins) * kBinSeconds;
    DeviceLogIndex::Query q;
    q.since = start;
    q.until = end;
    q.limit = 1000000;
    std::uint64_t budget = kCountBudget;
    std::set<std::int64_t> seen;
    for (const DeviceLogIndex::Piece& piece : index_->query(q)) {
        if (piece.header) continue;
        seen.insert(piece.id);
        Counted& counted = counted_[piece.id];
        if (counted.length != piece.length || counted.bins.empty()) count(piece, budget, counted);
        Activity& activity = result[piece.file].activity;
        for (const auto& [bin, counts] : counted.bins) {
            const std::int64_t at = bin * kBinSeconds;
            if (at < start || at >= end) continue;
            const auto i = static_cast<std::size_t>((at - start) / kBinSeconds);
            for (int c = 0; c < kClasses; ++c) activity[c][i] += counts[c];
        }
    }
    // Forget pieces that left the window.
    for (auto it = counted_.begin(); it != counted_.end();) {
        it = seen.count(it->first) != 0 ? std::next(it) : counted_.erase(it);
    }
    DeviceLogIndex::Query headers;
    headers.headersOnly = true;
    headers.limit = 1000000;
    for (const DeviceLogIndex::Piece& piece : index_->query(headers)) {
        LogFacts& facts = result[piece.file];
        if (facts.hasHeader && piece.firstReceivedMs < facts.headerMs) continue;
        auto known = headers_.find(piece.id);
        if (known == headers_.end()) {
            std::string text;
            LogText::Header header;
            readPath(folder_, piece.path, piece.offset, static_cast<std::size_t>(piece.length),
                     text);
            std::string_view line(text);
            while (!line.empty() && (line.back() == '\n' || line.back() == '\r'))
                line.remove_suffix(1);
            while (!line.empty() && line.front() == '\n') line.remove_prefix(1);
            if (!LogText::parseHeader(line, header)) {
                // Its bytes are gone (history trimmed): what the index knows.
                header.displayName = piece.source.displayName;
                header.satellite = piece.source.caller;
            }
            known = headers_.emplace(piece.id, header).first;
        }
        facts.hasHeader = true;
        facts.header = known->second;
        facts.headerMs = piece.firstReceivedMs;
    }
    return result;
}

std::vector<Level> LogIndexView::levels(const std::string& file, std::uint64_t start,
                                        std::string_view text, std::vector<std::size_t>& headers) {
    std::vector<Level> result;
    std::vector<std::pair<std::uint64_t, std::size_t>> unknown;  // offset, line number
    forLines(text, [&](std::string_view line, std::size_t at) {
        result.push_back(DeviceLogSeverity::ofLine(line));
        if (result.back() == Level::Unknown && !line.empty()) {
            unknown.emplace_back(start + at, result.size() - 1);
        }
    });
    if (unknown.empty()) return result;
    const bool back = endsWith(file, kBack);
    DeviceLogIndex::Query q;
    q.file = back ? file.substr(0, file.size() - std::strlen(kBack)) : file;
    q.limit = 1000000;
    const std::string path = folder_ + "/" + file;
    std::vector<DeviceLogIndex::Piece> pieces;
    for (DeviceLogIndex::Piece& piece : query(q)) {
        if (piece.path == path && piece.offset < start + text.size() &&
            piece.offset + piece.length > start) {
            pieces.push_back(std::move(piece));
        }
    }
    std::sort(pieces.begin(), pieces.end(),
              [](const auto& a, const auto& b) { return a.offset < b.offset; });
    for (const auto& [offset, line] : unknown) {
        auto it = std::upper_bound(pieces.begin(), pieces.end(), offset,
                                   [](std::uint64_t o, const auto& p) { return o < p.offset; });
        if (it == pieces.begin()) continue;
        --it;
        if (offset >= it->offset + it->length) continue;
        if (it->header)
            headers.push_back(line);
        else
            result[line] = soleLevel(it->severities);
    }
    return result;
}
